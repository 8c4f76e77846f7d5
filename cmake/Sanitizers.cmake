# One sanitizer set per build tree, applied to every target so that the
# library, the test support and the tests agree on instrumentation. g++ 12's
# -Wmaybe-uninitialized misfires on std::optional<std::string> in
# instrumented code, so it is off in these builds (the normal build keeps it).
if(VANTOR_SANITIZER STREQUAL "address")
  add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=undefined
                      -fno-omit-frame-pointer -Wno-maybe-uninitialized)
  add_link_options(-fsanitize=address,undefined)
elseif(VANTOR_SANITIZER STREQUAL "thread")
  # -Wno-tsan: g++ warns that TSan does not support atomic_thread_fence,
  # which Asio's headers use; with warnings as errors that stops the build.
  add_compile_options(-fsanitize=thread -fno-omit-frame-pointer -Wno-tsan -Wno-maybe-uninitialized)
  add_link_options(-fsanitize=thread)
elseif(VANTOR_SANITIZER STREQUAL "fuzzer")
  # libFuzzer's coverage instrumentation with ASan and UBSan, for the fuzz
  # targets and everything they link; only the targets themselves link the
  # fuzzer's main (-fsanitize=fuzzer, see fuzz/CMakeLists.txt).
  if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    message(FATAL_ERROR "VANTOR_SANITIZER=fuzzer needs clang (libFuzzer)")
  endif()
  add_compile_options(-fsanitize=fuzzer-no-link,address,undefined -fno-sanitize-recover=undefined
                      -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined)
elseif(NOT VANTOR_SANITIZER STREQUAL "none")
  message(FATAL_ERROR "VANTOR_SANITIZER must be none, address, thread or fuzzer")
endif()
