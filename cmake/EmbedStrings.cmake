# Turns resources/Localizable.strings into a C++ source holding its text.
# The reader stops at the first entry it cannot read, so a malformed line would silently drop
# every text after it: the build refuses it instead.
file(STRINGS ${IN} lines ENCODING UTF-8)
set(inComment FALSE)
set(number 0)
foreach(line IN LISTS lines)
  math(EXPR number "${number} + 1")
  if(inComment)
    if(line MATCHES "\\*/") 
      set(inComment FALSE)
    endif()
    continue()
  endif()
  if(line MATCHES "^/\\*")
    if(NOT line MATCHES "\\*/")
      set(inComment TRUE)
    endif()
    continue()
  endif()
  if(line STREQUAL "" OR line MATCHES "^//")
    continue()
  endif()
  if(NOT line MATCHES "^\"[A-Za-z0-9._]+\" = \"([^\"\\\\]|\\\\.)*\";$")
    message(FATAL_ERROR "${IN}:${number}: not an entry \"key\" = \"text\";: ${line}")
  endif()
endforeach()
file(READ ${IN} content)
file(WRITE ${OUT} "// Generated from Localizable.strings; do not edit.\n"
  "#include <string_view>\n"
  "namespace ferrovane { extern const std::string_view kStringTableSource; "
  "const std::string_view kStringTableSource = R\"FVSTRINGS(${content})FVSTRINGS\"; }\n")
