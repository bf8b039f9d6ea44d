# What the programs that speak to the network need beyond the scheduler's own libraries. Sets
# ORV_NETWORK_LIBRARIES when all of it is there, and makes orv_asio: Boost.Asio and Beast over
# OpenSSL's libssl.
find_package(Threads QUIET)
find_package(CURL 7.88 QUIET)
find_package(OpenSSL 3.0 QUIET COMPONENTS Crypto SSL)
find_path(ORV_BEAST_HEADERS boost/beast/http/parser.hpp)
pkg_check_modules(SECCOMP QUIET IMPORTED_TARGET libseccomp)

set(ORV_NETWORK_MISSING "")
if(NOT ORV_BEAST_HEADERS)
  list(APPEND ORV_NETWORK_MISSING "Boost headers (libboost-dev)")
endif()
if(NOT CURL_FOUND)
  list(APPEND ORV_NETWORK_MISSING "libcurl 7.88 (libcurl4-openssl-dev)")
endif()
if(NOT TARGET OpenSSL::SSL)
  list(APPEND ORV_NETWORK_MISSING "OpenSSL's libssl (libssl-dev)")
endif()
if(NOT Threads_FOUND)
  list(APPEND ORV_NETWORK_MISSING "threads")
endif()

if(ORV_NETWORK_MISSING)
  set(ORV_NETWORK_LIBRARIES OFF)
  list(JOIN ORV_NETWORK_MISSING ", " missing)
  message(NOTICE "orv_sched_net left out: ${missing} not found")
else()
  set(ORV_NETWORK_LIBRARIES ON)
  # Boost's headers are not held to this tree's warnings.
  add_library(orv_asio INTERFACE)
  target_include_directories(orv_asio SYSTEM INTERFACE ${ORV_BEAST_HEADERS})
  target_compile_definitions(orv_asio INTERFACE BOOST_ERROR_CODE_HEADER_ONLY
                             BOOST_ASIO_NO_DEPRECATED)
  # The coroutines of Boost 1.74 use std::exchange without including its header.
  target_compile_options(orv_asio INTERFACE "SHELL:-include utility")
  target_link_libraries(orv_asio INTERFACE OpenSSL::SSL Threads::Threads)
  # The client's side is written in coroutines, which clang 14 does not offer to Boost 1.74.
  include(CheckCXXSourceCompiles)
  set(CMAKE_REQUIRED_INCLUDES ${ORV_BEAST_HEADERS})
  check_cxx_source_compiles("#include <utility>
    #include <boost/asio/awaitable.hpp>
    boost::asio::awaitable<int> one() { co_return 1; }
    int main() {}" ORV_HAVE_COROUTINES)
  unset(CMAKE_REQUIRED_INCLUDES)
  if(NOT ORV_HAVE_COROUTINES)
    message(NOTICE "orv_api and orv_console left out: no coroutines with this compiler and Boost")
  endif()
  if(NOT SECCOMP_FOUND)
    message(NOTICE "no system call filter: libseccomp not found (libseccomp-dev)")
  endif()
endif()
