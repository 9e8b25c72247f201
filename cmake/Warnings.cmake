# Every target is built with the same warnings, as errors, and the sanitizers of the preset.
add_compile_options(-Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Woverloaded-virtual
                    -Wimplicit-fallthrough -Wextra-semi -Werror -fvisibility-inlines-hidden)
# The optimiser of GCC 12 reports false positives in its own containers at -O2.
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  add_compile_options(-Wno-maybe-uninitialized -Wno-restrict -Wno-dangling-pointer)
endif()
if(DOCSOURCE_SANITIZER)
  # Lines are all that a finding names: with types and variables a test takes 28 s, without them 21.
  # The check of an object's dynamic type opens a pipe to see whether memory can be read, and takes
  # every object for a wrong one when there is no descriptor left, as there is none in some tests.
  add_compile_options(-fsanitize=${DOCSOURCE_SANITIZER} -fno-sanitize=vptr
                      -fno-sanitize-recover=all -fno-omit-frame-pointer -O1 -g1)
  add_link_options(-fsanitize=${DOCSOURCE_SANITIZER})
endif()
