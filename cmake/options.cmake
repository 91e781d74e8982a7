# What every target of this project is compiled with. `keelmond_options` carries the include root,
# so that every include is written from the top of the tree.
add_library(keelmond_options INTERFACE)
target_include_directories(keelmond_options INTERFACE ${PROJECT_SOURCE_DIR})
target_compile_options(keelmond_options INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion)
# g++ 12 is wrong about the copies in an optimised expression of strings: it sees them overlap.
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
  target_compile_options(keelmond_options INTERFACE -Wno-restrict)
endif()

# What is installed checks its stack and its copies, and has the linker's tables read-only. It is
# not position-independent where it is static: its relocations would cost 6 kB for each program that
# runs.
set(installed $<CONFIG:Release,RelWithDebInfo,MinSizeRel>)
target_compile_options(keelmond_options INTERFACE
  $<${installed}:-fstack-protector-strong;-U_FORTIFY_SOURCE;-D_FORTIFY_SOURCE=2>)
target_link_options(keelmond_options INTERFACE $<${installed}:LINKER:-z,relro;LINKER:-z,now>)
# A static supervisor without what it never calls is a quarter smaller: all of it lies within two
# megabytes, which one table of pages maps in each child.
target_compile_options(keelmond_options INTERFACE
  $<${installed}:-ffunction-sections;-fdata-sections>)
target_link_options(keelmond_options INTERFACE $<${installed}:LINKER:--gc-sections>)

if(KEELMOND_SANITIZE)
  # Instrumented code needs larger stacks.
  target_compile_definitions(keelmond_options INTERFACE KEELMOND_SANITIZED)
  target_compile_options(keelmond_options INTERFACE
    -fsanitize=${KEELMOND_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  if(KEELMOND_SANITIZE MATCHES undefined)
    # It asks the kernel by way of a pipe whether memory can be read, and takes the answer for a
    # defect where there are no descriptors.
    target_compile_options(keelmond_options INTERFACE -fno-sanitize=vptr)
  endif()
  target_link_options(keelmond_options INTERFACE -fsanitize=${KEELMOND_SANITIZE})
endif()

# The threads count in the same places, so the counters have to be atomic.
if(KEELMOND_COVERAGE)
  target_compile_definitions(keelmond_options INTERFACE KEELMOND_COVERAGE)
  target_compile_options(keelmond_options INTERFACE --coverage -fprofile-update=atomic)
  target_link_options(keelmond_options INTERFACE --coverage)
endif()
