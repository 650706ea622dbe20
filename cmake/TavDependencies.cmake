# The installed packages that the project uses. Third-party headers are system headers, so that our
# warnings judge our own code only.
find_package(Threads REQUIRED)
find_package(PkgConfig REQUIRED)
find_package(spdlog REQUIRED)
find_package(fmt REQUIRED)
find_package(ZLIB REQUIRED)
pkg_check_modules(JSONCPP REQUIRED IMPORTED_TARGET jsoncpp)
pkg_check_modules(UUID REQUIRED IMPORTED_TARGET uuid)
pkg_check_modules(UTF8PROC REQUIRED IMPORTED_TARGET libutf8proc)
pkg_check_modules(SQLITE3 REQUIRED IMPORTED_TARGET sqlite3)
pkg_check_modules(CLAMAV REQUIRED IMPORTED_TARGET libclamav)
pkg_check_modules(SECCOMP REQUIRED IMPORTED_TARGET libseccomp)
pkg_check_modules(ARCHIVE REQUIRED IMPORTED_TARGET libarchive)
pkg_check_modules(GCRYPT REQUIRED IMPORTED_TARGET libgcrypt)
find_package(tl-expected REQUIRED)
find_path(ASIO_INCLUDE_DIR asio.hpp REQUIRED)

add_library(tav_asio INTERFACE)
target_include_directories(tav_asio SYSTEM INTERFACE "${ASIO_INCLUDE_DIR}")
target_compile_definitions(tav_asio INTERFACE ASIO_STANDALONE ASIO_NO_DEPRECATED)
target_link_libraries(tav_asio INTERFACE Threads::Threads)

# libjson-rpc-cpp is linked from its static archives: its shared library loads libcurl,
# libmicrohttpd and some forty more unused libraries.
find_library(JSONRPC_CLIENT_ARCHIVE libjsonrpccpp-client.a REQUIRED)
find_library(JSONRPC_SERVER_ARCHIVE libjsonrpccpp-server.a REQUIRED)
find_library(JSONRPC_COMMON_ARCHIVE libjsonrpccpp-common.a REQUIRED)
add_library(tav_jsonrpccpp INTERFACE)
target_link_libraries(tav_jsonrpccpp INTERFACE
  "${JSONRPC_CLIENT_ARCHIVE}" "${JSONRPC_SERVER_ARCHIVE}" "${JSONRPC_COMMON_ARCHIVE}" PkgConfig::JSONCPP)
