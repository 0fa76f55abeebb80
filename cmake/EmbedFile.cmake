cmake_minimum_required(VERSION 3.25)
# Writes OUTPUT, a C++ source that defines NAME and NAMEBytes in namespace vnt::view: the content of INPUT.
file(READ ${INPUT} content HEX)
string(LENGTH "${content}" digits)
math(EXPR bytes "${digits} / 2")
string(REGEX REPLACE "(................................)" "\\1\n" content "${content}")
string(REGEX REPLACE "([0-9a-f][0-9a-f])" "0x\\1," content "${content}")
file(WRITE ${OUTPUT} "#include <cstddef>
namespace vnt::view {
extern const unsigned char ${NAME}[];
extern const std::size_t ${NAME}Bytes;
const unsigned char ${NAME}[] = {
${content}};
const std::size_t ${NAME}Bytes = ${bytes};
} // namespace vnt::view
")
