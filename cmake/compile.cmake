# Flags that every target of the project is compiled with.
add_compile_options(-Wall -Wextra -Wpedantic -Wshadow -Wconversion)
if(KESTRUNE_TESTS)
  add_compile_options(-Werror)
endif()
add_compile_options(-Wcast-qual -Wformat=2 -Wmissing-declarations -Wnon-virtual-dtor -Wundef -Wvla)
# Variadic macros take an empty argument list with __VA_OPT__ of C++20; clang++ 14 still warns of it.
if(CMAKE_CXX_COMPILER_ID MATCHES Clang)
  add_compile_options(-Wno-gnu-zero-variadic-macro-arguments -Wno-variadic-macros)
endif()
add_compile_options(-fno-omit-frame-pointer)

if(KESTRUNE_SANITIZE STREQUAL "address")
  add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=all)
  add_link_options(-fsanitize=address,undefined)
elseif(KESTRUNE_SANITIZE STREQUAL "thread")
  add_compile_options(-fsanitize=thread)
  add_link_options(-fsanitize=thread)
elseif(NOT KESTRUNE_SANITIZE STREQUAL "")
  message(FATAL_ERROR "KESTRUNE_SANITIZE is empty, address or thread")
endif()

if(KESTRUNE_TSA)
  if(NOT CMAKE_CXX_COMPILER_ID MATCHES Clang)
    message(FATAL_ERROR "KESTRUNE_TSA needs clang++")
  endif()
  add_compile_options(-Wthread-safety)
endif()

# What the plugin's own rooms add: nothing is visible unless marked, nothing throws, and the library can be
# unloaded again (g++ marks inline statics GNU_UNIQUE otherwise, which pins it for the process's life).
set(KESTRUNE_PLUGIN_OPTIONS -fvisibility=hidden -fvisibility-inlines-hidden -fno-exceptions -fno-rtti)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  list(APPEND KESTRUNE_PLUGIN_OPTIONS -fno-gnu-unique)
endif()

# Coverage for libFuzzer in everything that a fuzz target calls.
if(KESTRUNE_FUZZ)
  add_compile_options(-fsanitize=fuzzer-no-link)
endif()

# For code whose build takes far longer than it ever runs: the tests' own code, and the command lines with the
# library that reads them.
set(KESTRUNE_COLD_OPTIONS -O0)
if(NOT KESTRUNE_TSA) # which runs nothing
  list(APPEND KESTRUNE_COLD_OPTIONS -g1)
endif()
set(KESTRUNE_COMMAND_LINE_OPTIONS)
if(KESTRUNE_TESTS)
  set(KESTRUNE_COMMAND_LINE_OPTIONS ${KESTRUNE_COLD_OPTIONS})
endif()
if(KESTRUNE_SANITIZE STREQUAL "address")
  list(APPEND KESTRUNE_COMMAND_LINE_OPTIONS -fno-sanitize=undefined)
endif()
