# Every target is built with the same warnings, as errors, and the sanitizers of the preset.
add_compile_options(-Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Woverloaded-virtual
                    -Wimplicit-fallthrough -Wextra-semi -Werror -fvisibility-inlines-hidden)
# The optimiser of GCC 12 reports false positives in its own containers at -O2.
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  add_compile_options(-Wno-maybe-uninitialized -Wno-restrict -Wno-dangling-pointer)
endif()
if(DOCSOURCE_SANITIZER)
  add_compile_options(-fsanitize=${DOCSOURCE_SANITIZER} -fno-sanitize-recover=all
                      -fno-omit-frame-pointer -O1)
  add_link_options(-fsanitize=${DOCSOURCE_SANITIZER})
endif()
