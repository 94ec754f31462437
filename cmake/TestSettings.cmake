# Settings of test code, for the folder that includes this. It runs once after each compilation, so
# compiling it fast counts for more. Half optimised, g++ 12 sees writes beyond arrays where there are
# none. The address sanitizer need only watch what is tested.
if(RAVU_SANITIZE MATCHES address)
  add_compile_options(-O0 -g1 -fno-sanitize=all)
elseif(RAVU_SANITIZE)
  add_compile_options(-O0 -g1)
elseif(NOT MSVC)
  add_compile_options(-O1 -g1 $<$<CXX_COMPILER_ID:GNU>:-Wno-array-bounds>
                      $<$<CXX_COMPILER_ID:GNU>:-Wno-stringop-overflow>)
endif()
