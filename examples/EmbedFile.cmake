# Writes the bytes of INPUT into OUTPUT as a C++ source that defines filedrop::kPage.

file(READ ${INPUT} bytes HEX)
string(REPEAT "[0-9a-f]" 32 line)
string(REGEX REPLACE "(${line})" "\\1\n" bytes "${bytes}")
string(REGEX REPLACE "([0-9a-f][0-9a-f])" "'\\\\x\\1'," bytes "${bytes}")
file(WRITE ${OUTPUT} "// Made from page.html by the build.

#include \"Page.h\"

namespace filedrop
{

namespace
{

const char kBytes[] = {
${bytes}
};

}  // namespace

const std::string_view kPage(kBytes, sizeof kBytes);

}  // namespace filedrop
")
