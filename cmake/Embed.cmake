# Compiles files into a C++ source as byte arrays, so that iac carries its schema and
# default machine with it and needs no install paths (also under Wine).
#   ia_embed(OUTPUT out.cpp NAMESPACE ns BASE dir FILES a b ...)
# The source defines `const std::map<std::string, std::string>& ns::files()`, keyed by the
# path relative to BASE with '/' separators.
function(ia_embed)
  cmake_parse_arguments(E "" "OUTPUT;NAMESPACE;BASE" "FILES" ${ARGN})
  add_custom_command(
    OUTPUT ${E_OUTPUT}
    COMMAND ${CMAKE_COMMAND} -DOUTPUT=${E_OUTPUT} -DNAMESPACE=${E_NAMESPACE} -DBASE=${E_BASE}
            "-DFILES=${E_FILES}" -P ${PROJECT_SOURCE_DIR}/cmake/EmbedScript.cmake
    DEPENDS ${E_FILES} ${PROJECT_SOURCE_DIR}/cmake/EmbedScript.cmake
    COMMENT "Embedding ${E_NAMESPACE}"
    VERBATIM)
endfunction()
