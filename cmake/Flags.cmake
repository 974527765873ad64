# Flags of every target. Presets choose the build type, the sanitizers and the hardening.
option(VELT_WERROR "warnings are errors" OFF)
option(VELT_HARDEN "hardening flags of a release" OFF)

add_compile_options(-Wall -Wextra -Wnon-virtual-dtor -Woverloaded-virtual)
if(VELT_WERROR)
  add_compile_options(-Werror)
endif()
if(VELT_HARDEN)
  add_compile_options(-U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=3 -D_GLIBCXX_ASSERTIONS -fstack-protector-strong
                      -fstack-clash-protection -fcf-protection=full)
  add_link_options(-Wl,-z,relro,-z,now,-z,noexecstack)
endif()
if(VELT_SANITIZE)
  add_compile_options(-fsanitize=${VELT_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${VELT_SANITIZE})
  add_compile_definitions(VELT_SANITIZED=1)
endif()
if(VELT_COVERAGE)
  add_compile_options(--coverage -fprofile-update=atomic)
  add_link_options(--coverage)
endif()

find_program(CCACHE ccache)
if(CCACHE AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
  # What one tree has compiled serves every tree with the same flags, also those of other checkouts.
  set(CMAKE_CXX_COMPILER_LAUNCHER env CCACHE_BASEDIR=${PROJECT_SOURCE_DIR} CCACHE_NOHASHDIR=1 ${CCACHE})
  set(CMAKE_C_COMPILER_LAUNCHER ${CMAKE_CXX_COMPILER_LAUNCHER})
endif()
