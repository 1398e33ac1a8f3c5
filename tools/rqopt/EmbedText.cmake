# Writes a C++ source defining `std::string_view FUNCTION()` that returns the bytes of INPUT,
# as a raw string literal. The delimiter is chosen so that it does not occur in the text.
# When INPUT does not exist the text is empty.
#   cmake -DINPUT=<file> -DNAME=<name in the comment> -DOUTPUT=<file.cpp> -DFUNCTION=<name> -DHEADER=<header> -P EmbedText.cmake
set(text "")
if(EXISTS "${INPUT}")
  file(READ "${INPUT}" text)
endif()
set(delimiter "rqtext")
set(counter 0)
string(FIND "${text}" ")${delimiter}\"" found)
while(NOT found EQUAL -1)
  math(EXPR counter "${counter} + 1")
  set(delimiter "rqtext${counter}")
  string(FIND "${text}" ")${delimiter}\"" found)
endwhile()
set(content "// Generated at build time from ${NAME} by EmbedText.cmake: edit that file instead.
#include \"${HEADER}\"

std::string_view ${FUNCTION}() {
    static constexpr std::string_view kText = R\"${delimiter}(${text})${delimiter}\";
    return kText;
}
")
# Rewrite only on a change, so that an unchanged catalog does not recompile the tool.
if(EXISTS "${OUTPUT}")
  file(READ "${OUTPUT}" previous)
  if(previous STREQUAL content)
    return()
  endif()
endif()
file(WRITE "${OUTPUT}" "${content}")
