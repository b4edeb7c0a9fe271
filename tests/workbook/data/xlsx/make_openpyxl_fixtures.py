#!/usr/bin/python3
# Writes the workbooks of openpyxl (Debian python3-openpyxl), an independent producer: the test
# expects the values below. Run by make_fixtures.sh.
import datetime as dt
import os

import openpyxl
from openpyxl.chart import BarChart, Reference
from openpyxl.utils.datetime import CALENDAR_MAC_1904


def save(wb, name):
    wb.properties.created = wb.properties.modified = dt.datetime(2024, 1, 1)  # reproducible
    wb.save(os.path.join(os.path.dirname(os.path.abspath(__file__)), name))


def sheet(wb, title, rows):
    ws = wb.create_sheet(title)
    for row in rows:
        ws.append(row)
    return ws


wb = openpyxl.Workbook()
wb.remove(wb.active)
types = sheet(wb, "Types", [
    ["text", "integer", "double", "bool", "formula"],
    ["apple", 3, 1.25, True, "=B2*2"],  # a formula without cached value
    ["Grüße, 中文 😀", -7, 0.001, False], [],
    ["  padded  ", None, 1e300, None, -0.5],
    ["line1\nline2", 123456789012345, 6.02214076e23]])
bars = BarChart()
bars.add_data(Reference(types, min_col=2, min_row=1, max_row=3), titles_from_data=True)
wb.create_chartsheet("Chart").add_chart(bars)
dates = [
    (dt.date(2024, 3, 10), None),
    (dt.datetime(2024, 3, 10, 2, 30), None),  # in New York's DST gap
    (dt.datetime(1988, 4, 17, 2, 30), None),  # in Shanghai's 1988 DST gap
    (dt.time(14, 30, 15), None), (dt.datetime(2021, 12, 31, 23, 59, 59, 999000), None),
    (dt.date(1900, 1, 1), None), (dt.date(1900, 2, 28), None), (dt.date(1900, 3, 1), None),
    (dt.date(9999, 12, 31), None), (45000, "dd/mm/yyyy"), (0.75, "[h]:mm"),
    (45000, "[Red]0.00"), (45000, '0.00" days"'), (45000, "0\\h"), (0.25, "h:mm AM/PM"),
    (0.5, "0%"), (dt.datetime(2024, 3, 10), None)]
for cell, (_, number_format) in zip(sheet(wb, "Dates", [[v] for v, _ in dates])["A"], dates):
    if number_format:
        cell.number_format = number_format
sparse = sheet(wb, "数据 Sparse", [])
sparse["A1"], sparse["C3"], sparse["AX1000"] = "first", 3, "middle"
sparse["XFD1048576"] = "last corner"
sheet(wb, "Empty", [])
save(wb, "openpyxl.xlsx")

wb = openpyxl.Workbook()
wb.epoch = CALENDAR_MAC_1904
wb.remove(wb.active)
sheet(wb, "Mac", [[dt.date(2024, 3, 10)], [dt.date(1904, 1, 2)], [dt.datetime(2000, 1, 1, 12)],
                  [dt.time(6)], [1.5]])
save(wb, "openpyxl_1904.xlsx")

wb = openpyxl.Workbook(iso_dates=True)
wb.remove(wb.active)
sheet(wb, "Iso", [[dt.date(2024, 3, 10)], [dt.datetime(2024, 3, 10, 2, 30, 15)], [dt.time(14, 30)]])
save(wb, "openpyxl_isodates.xlsx")
