# Turns a text file into a header holding it as one raw string constant.
# -DINPUT=file -DOUTPUT=header -DNAME=identifier
file(READ "${INPUT}" text)
file(WRITE "${OUTPUT}.tmp"
  "// Generated from ${INPUT}; do not edit.\n#pragma once\n\n"
  "static const char ${NAME}[] = R\"slfxml(${text})slfxml\";\n")
file(COPY_FILE "${OUTPUT}.tmp" "${OUTPUT}" ONLY_IF_DIFFERENT)
file(REMOVE "${OUTPUT}.tmp")
