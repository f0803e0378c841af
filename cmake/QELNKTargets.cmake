# Flags of the project's own code.

# Links and compiles a target with the sanitizers of this build.
function(qelnk_sanitize target)
  if(QELNK_SANITIZE)
    target_compile_options(${target} PUBLIC -fsanitize=${QELNK_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
    if(QELNK_SANITIZE MATCHES undefined)
      # This check asks the system for descriptors to see whether memory can be read, and takes it for unreadable in tests
      # that leave none.
      target_compile_options(${target} PUBLIC -fno-sanitize=vptr)
    endif()
    if(QELNK_SANITIZE MATCHES thread)
      # The sanitizer does not know the fences by which Asio hands over what its own locks hand over already.
      target_compile_definitions(${target} PUBLIC BOOST_ASIO_DISABLE_FENCED_BLOCK)
    endif()
    target_link_options(${target} PUBLIC -fsanitize=${QELNK_SANITIZE})
  endif()
endfunction()

# Warnings as errors. Clang also checks that what a mutex guards is used under it.
function(qelnk_own_code target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Werror $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor>
                         $<$<COMPILE_LANG_AND_ID:CXX,Clang>:-Wthread-safety -Wthread-safety-reference>)
  qelnk_sanitize(${target})
endfunction()
