# Settings of every target: arithmetic that is the same on every processor, warnings, sanitizers.

find_program(RAVU_CCACHE ccache)
if(RAVU_CCACHE)
  # Without these allowances ccache passes by all that has a precompiled header.
  set(RAVU_COMPILER_LAUNCHER ${CMAKE_COMMAND} -E env
      CCACHE_SLOPPINESS=pch_defines,time_macros ${RAVU_CCACHE})
  set(CMAKE_C_COMPILER_LAUNCHER ${RAVU_COMPILER_LAUNCHER})
  set(CMAKE_CXX_COMPILER_LAUNCHER ${RAVU_COMPILER_LAUNCHER})
endif()

if(MSVC)
  add_compile_options(/W4 /fp:precise)
else()
  # Compilers would fuse separate multiplications and additions, differently per instruction set.
  add_compile_options(-ffp-contract=off -Wall -Wextra -Wpedantic -Wshadow -Wconversion
                      -Wno-sign-conversion)
  if(RAVU_WARNINGS_AS_ERRORS)
    add_compile_options(-Werror)
  endif()
endif()

if(RAVU_SANITIZE)
  add_compile_options(-fsanitize=${RAVU_SANITIZE} -fno-sanitize-recover=all
                      -fno-omit-frame-pointer)
  set(RAVU_SANITIZE_LINK -fsanitize=${RAVU_SANITIZE})
  if(CMAKE_C_COMPILER_ID MATCHES Clang)
    # Programs in C link the library, which is C++.
    list(APPEND RAVU_SANITIZE_LINK -fsanitize-link-c++-runtime -lstdc++)
  endif()
  add_link_options(${RAVU_SANITIZE_LINK})
endif()
