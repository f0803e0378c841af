#!/usr/bin/env bash
# Makes the API reference from the public headers' comments: build/reference/html/index.html. Fails on any warning, a public member
# without a comment among them.
source "$(dirname "$0")/common.sh"
rm -rf build/reference
mkdir -p build/reference
doxygen docs/Doxyfile
cp -r examples build/reference/  # where the pages' links lead
echo "build/reference/html/index.html: $(find build/reference/html -name '*.html' | wc -l) pages, no warnings"
