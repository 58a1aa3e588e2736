# Compiler settings shared by every target of this project.

# Warnings that every target of ours compiles with; they never apply to
# third-party code.
function(reachability_cache_set_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Werror)
  if(REACHABILITY_CACHE_THREAD_SAFETY_ANALYSIS)
    if(NOT CMAKE_CXX_COMPILER_ID MATCHES "Clang")
      message(FATAL_ERROR "REACHABILITY_CACHE_THREAD_SAFETY_ANALYSIS needs clang")
    endif()
    target_compile_options(${target} PRIVATE -Wthread-safety -Wthread-safety-beta)
  endif()
endfunction()

if(REACHABILITY_CACHE_SANITIZER STREQUAL "address")
  add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=all
                      -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined -fno-sanitize-recover=all)
elseif(REACHABILITY_CACHE_SANITIZER STREQUAL "thread")
  add_compile_options(-fsanitize=thread -fno-omit-frame-pointer)
  add_link_options(-fsanitize=thread)
elseif(NOT REACHABILITY_CACHE_SANITIZER STREQUAL "")
  message(FATAL_ERROR "Unknown REACHABILITY_CACHE_SANITIZER '${REACHABILITY_CACHE_SANITIZER}'")
endif()
