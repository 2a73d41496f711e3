# Turns resources/Localizable.strings into a C++ source holding its text.
file(READ ${IN} content)
file(WRITE ${OUT} "// Generated from Localizable.strings; do not edit.\n"
  "#include <string_view>\n"
  "namespace ferrovane { extern const std::string_view kStringTableSource; "
  "const std::string_view kStringTableSource = R\"FVSTRINGS(${content})FVSTRINGS\"; }\n")
