# A build that compiles every source and links nothing (the macOS check, cmake/macos-check.cmake).
# The libraries are only their headers, found through -isystem in QUILLET_MACOS_DEPS; executables
# and modules are left as empty files, so the whole tree "builds" without a macOS linker.
foreach(lang C CXX)
  set(CMAKE_${lang}_LINK_EXECUTABLE "${CMAKE_COMMAND} -E touch <TARGET>")
  set(CMAKE_${lang}_CREATE_SHARED_MODULE "${CMAKE_COMMAND} -E touch <TARGET>")
  set(CMAKE_${lang}_CREATE_SHARED_LIBRARY "${CMAKE_COMMAND} -E touch <TARGET>")
endforeach()

foreach(target CURL::libcurl nlohmann_json::nlohmann_json simdjson::simdjson SQLite::SQLite3 yaml-cpp
               GTest::gtest GTest::gtest_main GTest::gmock GTest::gmock_main)
  add_library(${target} INTERFACE IMPORTED)
endforeach()
set(ASIO_INCLUDE_DIR ${QUILLET_MACOS_DEPS})
set(HTTPLIB_INCLUDE_DIR ${QUILLET_MACOS_DEPS})
