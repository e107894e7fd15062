# Compiler and sanitizer flags that every target of this project gets.
add_compile_options(-Wall -Wextra -Wconversion -Wshadow)
if(KV_WERROR)
  add_compile_options(-Werror)
endif()

if(KV_SANITIZE)
  add_compile_options(-fsanitize=${KV_SANITIZE} -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${KV_SANITIZE})
  if(KV_SANITIZE MATCHES "undefined")
    add_compile_options(-fno-sanitize-recover=undefined)
  endif()
endif()

# A fuzzer is guided by the code that its inputs reach, that of the libraries above all.
if(KV_FUZZERS)
  add_compile_options(-fsanitize=fuzzer-no-link)
endif()

# Hardening of a process that reads hostile bytes all day.
add_compile_options(-fstack-protector-strong)
add_link_options(-Wl,-z,relro,-z,now)
if(CMAKE_BUILD_TYPE STREQUAL "Release" OR CMAKE_BUILD_TYPE STREQUAL "RelWithDebInfo")
  add_compile_definitions(_FORTIFY_SOURCE=2)
endif()
