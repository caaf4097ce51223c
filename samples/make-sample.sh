#!/usr/bin/env bash
# Makes page.tif from page.ps. Only needed after a change of page.ps; wants Ghostscript.
set -euo pipefail
cd "$(dirname "$0")"
gs -q -dSAFER -dBATCH -dNOPAUSE -sDEVICE=tiffg4 -r1200 -dDEVICEWIDTHPOINTS=332 \
  -dDEVICEHEIGHTPOINTS=442 -sOutputFile=page.tif page.ps
