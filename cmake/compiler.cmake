# Compiler settings of the whole tree: warnings are errors, releases are hardened.
add_library(orv_compiler INTERFACE)
target_include_directories(orv_compiler INTERFACE ${PROJECT_SOURCE_DIR}/src)
target_compile_options(orv_compiler INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion -Wold-style-cast -Wcast-qual
  -Wformat=2 -Wundef -Wmissing-declarations -Werror)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  target_compile_options(orv_compiler INTERFACE -Wduplicated-cond -Wlogical-op)
  if(CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
    # At -O3 this compiler sees overlapping copies in the insides of std::string's operator+.
    target_compile_options(orv_compiler INTERFACE -Wno-restrict)
  endif()
endif()

set(CMAKE_POSITION_INDEPENDENT_CODE ON)
include(CheckPIESupported)
check_pie_supported()

add_compile_options(-fno-strict-aliasing -fstack-protector-strong)
if(ORV_SANITIZE)
  add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=all
                      -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined)
elseif(ORV_BUILD_FUZZERS)
  add_compile_options(-fsanitize=fuzzer-no-link,address,undefined -fno-sanitize-recover=all
                      -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined)
else()
  add_link_options(-Wl,-z,relro,-z,now)
  if(NOT CMAKE_BUILD_TYPE STREQUAL "Debug")
    add_compile_options(-U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2)
    include(CheckCXXCompilerFlag)
    foreach(flag stack-clash-protection cf-protection)  # the latter is for x86 alone
      check_cxx_compiler_flag(-f${flag} ORV_HAVE_${flag})
      if(ORV_HAVE_${flag})
        add_compile_options(-f${flag})
      endif()
    endforeach()
  endif()
endif()

# A compiler cache is used when there is one; nothing depends on it.
find_program(ORV_CCACHE ccache)
if(ORV_CCACHE AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
  set(CMAKE_CXX_COMPILER_LAUNCHER ${ORV_CCACHE})
endif()
