#!/bin/sh
# Remakes the workbooks that tst_krxlsxreader reads, with two independent producers:
# openpyxl (Debian python3-openpyxl) and LibreOffice Calc (Debian libreoffice-calc).
set -eu
cd "$(dirname "$0")"
/usr/bin/python3 make_openpyxl_fixtures.py
profile=$(mktemp -d)
trap 'rm -rf "$profile"' EXIT
soffice -env:UserInstallation=file://"$profile" --headless --convert-to xlsx --outdir . libreoffice.fods >/dev/null
