# Fails when the README's C example is not the compiled minimal client, word
# for word, so the example in the README never rots.
file(READ "${README}" readme)
file(READ "${EXAMPLE}" example)
string(FIND "${readme}" "```c\n${example}```" at)
if(at EQUAL -1)
  message(FATAL_ERROR "README.md's C example differs from ${EXAMPLE}")
endif()
