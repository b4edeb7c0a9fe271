#!/usr/bin/python3
# Writes the openpyxl-made workbooks that tst_krxlsxreader reads. openpyxl is an independent
# producer here: the tests state the values below and expect the reader to return them.
#
#   /usr/bin/python3 make_openpyxl_fixtures.py     (Debian python3-openpyxl; writes next to itself)
import datetime
import os

import openpyxl
from openpyxl.chart import BarChart, Reference
from openpyxl.utils.datetime import CALENDAR_MAC_1904

here = os.path.dirname(os.path.abspath(__file__))


def fixed_properties(wb):
    # Reproducible files: openpyxl stamps the creation time otherwise.
    stamp = datetime.datetime(2024, 1, 1)
    wb.properties.created = stamp
    wb.properties.modified = stamp


def types_and_dates():
    wb = openpyxl.Workbook()
    fixed_properties(wb)

    types = wb.active
    types.title = "Types"
    types.append(["text", "integer", "double", "bool", "formula"])
    types.append(["apple", 3, 1.25, True, "=B2*2"])            # formula: no cached value
    types.append(["Grüße, 中文 😀", -7, 0.001, False])
    types.append([])                                           # row 4 stays empty
    types["A5"] = "  padded  "
    types["C5"] = 1e300
    types["E5"] = -0.5
    types["A6"] = "line1\nline2"
    types["B6"] = 123456789012345
    types["C6"] = 6.02214076e23

    chart = wb.create_chartsheet("Chart")
    bars = BarChart()
    bars.add_data(Reference(types, min_col=2, min_row=1, max_row=3), titles_from_data=True)
    chart.add_chart(bars)

    dates = wb.create_sheet("Dates")
    rows = [
        ("date", datetime.date(2024, 3, 10), None),
        ("datetime in New York's DST gap", datetime.datetime(2024, 3, 10, 2, 30), None),
        ("datetime in Shanghai's 1988 DST gap", datetime.datetime(1988, 4, 17, 2, 30), None),
        ("time", datetime.time(14, 30, 15), None),
        ("milliseconds", datetime.datetime(2021, 12, 31, 23, 59, 59, 999000), None),
        ("1900-01-01", datetime.date(1900, 1, 1), None),
        ("1900-02-28", datetime.date(1900, 2, 28), None),
        ("1900-03-01", datetime.date(1900, 3, 1), None),
        ("9999-12-31", datetime.date(9999, 12, 31), None),
        ("custom date format", 45000, "dd/mm/yyyy"),
        ("elapsed hours", 0.75, "[h]:mm"),
        ("colour, not a date", 45000, "[Red]0.00"),
        ("quoted text, not a date", 45000, '0.00" days"'),
        ("escaped letter, not a date", 45000, "0\\h"),
        ("am/pm", 0.25, "h:mm AM/PM"),
        ("percent", 0.5, "0%"),
        ("datetime at midnight", datetime.datetime(2024, 3, 10), None),
    ]
    dates.append(["kind", "value"])
    for kind, value, number_format in rows:
        dates.append([kind, value])
        if number_format:
            dates.cell(row=dates.max_row, column=2).number_format = number_format

    sparse = wb.create_sheet("数据 Sparse")
    sparse["A1"] = "first"
    sparse["C3"] = 3
    sparse.cell(row=1000, column=50, value="middle")
    sparse["XFD1048576"] = "last corner"

    wb.create_sheet("Empty")
    wb.save(os.path.join(here, "openpyxl.xlsx"))


def date1904():
    wb = openpyxl.Workbook()
    fixed_properties(wb)
    wb.epoch = CALENDAR_MAC_1904
    sheet = wb.active
    sheet.title = "Mac"
    sheet["A1"] = datetime.date(2024, 3, 10)
    sheet["A2"] = datetime.date(1904, 1, 2)
    sheet["A3"] = datetime.datetime(2000, 1, 1, 12, 0)
    sheet["A4"] = datetime.time(6, 0)
    sheet["A5"] = 1.5
    wb.save(os.path.join(here, "openpyxl_1904.xlsx"))


def iso_dates():
    wb = openpyxl.Workbook(iso_dates=True)
    fixed_properties(wb)
    sheet = wb.active
    sheet.title = "Iso"
    sheet["A1"] = datetime.date(2024, 3, 10)
    sheet["A2"] = datetime.datetime(2024, 3, 10, 2, 30, 15)
    sheet["A3"] = datetime.time(14, 30)
    wb.save(os.path.join(here, "openpyxl_isodates.xlsx"))


types_and_dates()
date1904()
iso_dates()
