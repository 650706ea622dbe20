# How every target of this project is built: language level, warnings, sanitizers, and the two
# shapes of target that the folders use.

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_C_STANDARD 17)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY "${CMAKE_BINARY_DIR}/bin")
set(CMAKE_LIBRARY_OUTPUT_DIRECTORY "${CMAKE_BINARY_DIR}/lib")

# "Dev" keeps assertions, builds fast and still gives usable back traces. With the address and
# undefined-behaviour checks, optimizing takes three times the time that the optimized tests save.
set(TAV_DEV_OPTIMIZATION -O1)
if(TAV_SANITIZE MATCHES "address")
  set(TAV_DEV_OPTIMIZATION -O0)
endif()
set(CMAKE_C_FLAGS_DEV "${TAV_DEV_OPTIMIZATION} -g1")
set(CMAKE_CXX_FLAGS_DEV "${TAV_DEV_OPTIMIZATION} -g1")

if(NOT CMAKE_BUILD_TYPE)
  set(CMAKE_BUILD_TYPE Dev CACHE STRING "" FORCE)
endif()

if(TAV_SANITIZE)
  add_compile_options(-fsanitize=${TAV_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${TAV_SANITIZE})
  add_compile_definitions(TAV_SANITIZED=1)
endif()

add_library(tav_warnings INTERFACE)
target_compile_options(tav_warnings INTERFACE
  -Wall -Wextra -Wpedantic -Wconversion -Wshadow -Wnon-virtual-dtor -Werror)
# g++ 12 warns falsely of an overlap inside std::string (fixed in g++ 13).
target_compile_options(tav_warnings INTERFACE $<$<CXX_COMPILER_ID:GNU>:-Wno-restrict>)

# tav_library(NAME <sources...>): a static library whose public headers lie in <folder>/include.
function(tav_library name)
  add_library(${name} STATIC ${ARGN})
  target_include_directories(${name} PUBLIC "${CMAKE_CURRENT_SOURCE_DIR}/include")
  target_link_libraries(${name} PRIVATE $<BUILD_INTERFACE:tav_warnings>)
endfunction()

# tav_program(NAME <sources...>)
function(tav_program name)
  add_executable(${name} ${ARGN})
  target_link_libraries(${name} PRIVATE $<BUILD_INTERFACE:tav_warnings>)
endfunction()
