# Writes the bytes of INPUT into OUTPUT as a C++ source that defines NAMESPACE::NAME, which
# HEADER declares as a std::string_view.

file(READ ${INPUT} bytes HEX)
string(REPEAT "[0-9a-f]" 32 line)
string(REGEX REPLACE "(${line})" "\\1\n" bytes "${bytes}")
string(REGEX REPLACE "([0-9a-f][0-9a-f])" "'\\\\x\\1'," bytes "${bytes}")
get_filename_component(input_name ${INPUT} NAME)
file(WRITE ${OUTPUT} "// Made from ${input_name} by the build.

#include \"${HEADER}\"

namespace ${NAMESPACE}
{

namespace
{

const char kBytes[] = {
${bytes}
};

}  // namespace

const std::string_view ${NAME}(kBytes, sizeof kBytes);

}  // namespace ${NAMESPACE}
")
