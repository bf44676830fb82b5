# Writes the source file that says which revision of the tree is built, when that has changed.
execute_process(COMMAND git -C ${SOURCE} describe --always --dirty --abbrev=12
                OUTPUT_VARIABLE revision OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
if(NOT revision MATCHES "^[-.a-zA-Z0-9_]+$")
  set(revision unknown)
endif()
set(text "#include \"bessd/Revision.h\"\n\nnamespace Bessd {\n\nconst char* revision() {\n  return \"${revision}\";\n}\n\n}  // namespace Bessd\n")
if(EXISTS ${OUTPUT})
  file(READ ${OUTPUT} before)
endif()
if(NOT "${before}" STREQUAL "${text}")
  file(WRITE ${OUTPUT} "${text}")
endif()
