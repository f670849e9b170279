# Writes the page into a header as one raw string, so that the binary serves it without files.
file(READ ${INPUT} page)
string(FIND "${page}" ")orqpage\"" clash)
if(NOT clash EQUAL -1)
  message(FATAL_ERROR "${INPUT} contains the raw string's delimiter")
endif()
file(WRITE ${OUTPUT}.new
     "// Generated from web/index.html by web/embed.cmake.\n#pragma once\n\n"
     "static const char kServePage[] = R\"orqpage(${page})orqpage\";\n")
file(RENAME ${OUTPUT}.new ${OUTPUT})
