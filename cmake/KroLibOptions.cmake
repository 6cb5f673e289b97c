# Compiler settings shared by every target of the project.

add_library(krolib_options INTERFACE)
target_compile_options(krolib_options INTERFACE
  -Wall -Wextra
  # Make __FILE__ relative to the source tree ("modules/support/LogFacility.cpp"),
  # so exception locations do not depend on where the tree or the build lives.
  -fmacro-prefix-map=${PROJECT_SOURCE_DIR}/=)

if(KROLIB_NATIVE_ARCH)
  target_compile_options(krolib_options INTERFACE -march=native)
endif()

if(KROLIB_SANITIZE)
  target_compile_options(krolib_options INTERFACE
    -fsanitize=address,undefined -fno-omit-frame-pointer -fno-sanitize-recover=undefined)
  target_link_options(krolib_options INTERFACE -fsanitize=address,undefined)
endif()
