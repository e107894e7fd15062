# Every library that the product calls, as an imported target.
find_package(PkgConfig REQUIRED)
find_package(Threads REQUIRED)
find_package(OpenSSL REQUIRED)
pkg_check_modules(JSONC REQUIRED IMPORTED_TARGET json-c)
pkg_check_modules(SODIUM REQUIRED IMPORTED_TARGET libsodium)
pkg_check_modules(ARCHIVE REQUIRED IMPORTED_TARGET libarchive)
pkg_check_modules(ZLIB REQUIRED IMPORTED_TARGET zlib)
pkg_check_modules(TRE REQUIRED IMPORTED_TARGET tre)
pkg_check_modules(UUID REQUIRED IMPORTED_TARGET uuid)
pkg_check_modules(CZMQ REQUIRED IMPORTED_TARGET libczmq)

# Debian ships no usable pkg-config files for Proton, and no development link for its C core.
find_library(PROTON_CPP_LIBRARY qpid-proton-cpp REQUIRED)
add_library(kv_proton INTERFACE)
target_link_libraries(kv_proton INTERFACE ${PROTON_CPP_LIBRARY} -l:libqpid-proton-core.so.10)

# libmagic has a pkg-config file only in later releases.
find_library(MAGIC_LIBRARY magic REQUIRED)

if(KV_MIMALLOC AND NOT KV_SANITIZE)
  find_package(mimalloc 2.0 REQUIRED)
endif()
