#!/usr/bin/env python3
"""Describes a workbook as openpyxl reads it, as JSON on standard output, for the writer's tests.

    python3 xlsx_describe.py FILE.xlsx

{"sheets": [{"name": ..., "cells": [...], "columns": [...]}, ...], "sharedStrings": bool}
in workbook order. A cell: {"row", "column" (1-based), "type" (the Python type: str, int, float,
bool, datetime, time; "formula" for a formula, whose value is its text), "value" (datetimes and
times in ISO form, to the microsecond), "numberFormat", "bold", "size", "hyperlink" (the link's
target, or null)}; only cells that hold a value are listed. A column range:
{"min", "max", "width"} as stored in the file. "sharedStrings" tells whether the file has a
shared-string table (a writer that streams its rows writes its strings inline instead).

Text is decoded as Excel shows it: "_xHHHH_" stands for the UTF-16 unit HHHH (ECMA-376,
ST_Xstring), which openpyxl 3.0 leaves undecoded in inline strings.
"""

import datetime
import json
import re
import sys
import zipfile

import openpyxl

ESCAPE = re.compile(r"_x([0-9A-Fa-f]{4})_")


def decode_text(text):
    # The units are UTF-16: a character beyond the BMP would come as two escaped surrogates.
    units = ESCAPE.sub(lambda m: chr(int(m.group(1), 16)), text)
    return units.encode("utf-16", "surrogatepass").decode("utf-16")


def describe_value(value):
    if isinstance(value, str):
        return "str", decode_text(value)
    if isinstance(value, bool):
        return "bool", value
    if isinstance(value, datetime.datetime):
        return "datetime", value.isoformat(timespec="microseconds")
    if isinstance(value, datetime.time):
        return "time", value.isoformat(timespec="microseconds")
    if isinstance(value, (int, float)):
        return type(value).__name__, value
    raise TypeError("unexpected cell value %r" % (value,))


def describe_sheet(sheet):
    cells = []
    for row in sheet.iter_rows():
        for cell in row:
            if cell.value is None:
                continue
            if cell.data_type == "f":
                kind, value = "formula", cell.value
            else:
                kind, value = describe_value(cell.value)
            cells.append({
                "row": cell.row,
                "column": cell.column,
                "type": kind,
                "value": value,
                "numberFormat": cell.number_format,
                "bold": bool(cell.font.b),
                "size": float(cell.font.sz),
                "hyperlink": cell.hyperlink.target if cell.hyperlink else None,
            })
    columns = [{"min": d.min, "max": d.max, "width": d.width}
               for d in sheet.column_dimensions.values()]
    return {"name": sheet.title, "cells": cells, "columns": columns}


def main():
    path = sys.argv[1]
    workbook = openpyxl.load_workbook(path)
    with zipfile.ZipFile(path) as archive:
        shared = "xl/sharedStrings.xml" in archive.namelist()
    description = {"sheets": [describe_sheet(s) for s in workbook.worksheets],
                   "sharedStrings": shared}
    json.dump(description, sys.stdout, ensure_ascii=True)


if __name__ == "__main__":
    main()
