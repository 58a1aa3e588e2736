# Writes the page's template, style and script into a C++ source file, as
# byte arrays, so that reachability-trace carries them and writes pages
# without any file beside it. Run as a script:
#   cmake -DOUTPUT=<file.cpp> -DHTML=<file> -DCSS=<file> -DJS=<file> -P EmbedPageAssets.cmake
set(source "// Generated from tools/reachability-trace/page/ by EmbedPageAssets.cmake.\n")
string(APPEND source "#include \"TracePageAssets.h\"\n\n")
string(APPEND source "namespace veranda::reachabilityCache::trace {\nnamespace {\n\n")
set(definitions "")
foreach(asset HTML CSS JS)
  file(READ "${${asset}}" bytes HEX)
  string(REGEX REPLACE "([0-9a-f][0-9a-f])" "0x\\1," bytes "${bytes}")
  string(REGEX REPLACE "(0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,0x..,)" "\\1\n"
    bytes "${bytes}")
  string(APPEND source "const char ${asset}_BYTES[] = {\n${bytes}};\n\n")
  string(APPEND definitions
    "const std::string_view PAGE_${asset}(${asset}_BYTES, sizeof(${asset}_BYTES));\n")
endforeach()
string(APPEND source "}  // namespace\n\n${definitions}\n")
string(APPEND source "}  // namespace veranda::reachabilityCache::trace\n")
file(WRITE "${OUTPUT}.tmp" "${source}")
file(COPY_FILE "${OUTPUT}.tmp" "${OUTPUT}" ONLY_IF_DIFFERENT)
file(REMOVE "${OUTPUT}.tmp")
