# What every target of the project is compiled with.

add_library(kelvane_options INTERFACE)
target_compile_features(kelvane_options INTERFACE cxx_std_20)
target_include_directories(kelvane_options INTERFACE ${PROJECT_SOURCE_DIR} ${PROJECT_SOURCE_DIR}/include)
target_compile_options(kelvane_options INTERFACE
  -Wall -Wextra -Wpedantic -Werror
  -Wshadow -Wnon-virtual-dtor -Wold-style-cast -Wcast-qual -Wconversion -Wno-sign-conversion
  -Woverloaded-virtual -Wundef
  -fno-omit-frame-pointer)
# What is installed checks the bounds that the compiler knows, and has no function pointers that can be overwritten.
target_compile_options(kelvane_options INTERFACE
  "$<$<CONFIG:Release>:-U_FORTIFY_SOURCE;-D_FORTIFY_SOURCE=2;-fstack-protector-strong>")
target_link_options(kelvane_options INTERFACE -Wl,-z,relro -Wl,-z,now)
target_link_libraries(kelvane_options INTERFACE Threads::Threads)

# kelvane_library(NAME SOURCES file... [USES target...] [PRIVATE_USES target...])
function(kelvane_library name)
  cmake_parse_arguments(ARG "" "" "SOURCES;USES;PRIVATE_USES" ${ARGN})
  add_library(${name} STATIC ${ARG_SOURCES})
  target_link_libraries(${name} PUBLIC kelvane_options ${ARG_USES} PRIVATE ${ARG_PRIVATE_USES})
endfunction()
