# Warnings live in a private interface target so that they never reach a
# consumer's build through the exported targets.
add_library(vantor_warnings INTERFACE)

# How this tree builds Asio and Beast, for every target of it and, like the
# warnings, for none of a consumer's: the platform library compiles them
# once (the separate-compilation sources), and the rest of the tree links
# that copy. A consumer's own Asio code keeps its own settings, deprecated
# interfaces and concepts included; the public headers need none of these.
add_library(vantor_asio_build INTERFACE)
target_compile_definitions(vantor_asio_build INTERFACE
  BOOST_ASIO_SEPARATE_COMPILATION BOOST_BEAST_SEPARATE_COMPILATION
  BOOST_ASIO_NO_DEPRECATED
  # Clang 16 takes Beast 1.81's constrained friend declaration of the TLS
  # stream's async_teardown for a second overload, and a WebSocket over TLS
  # does not compile; without Asio's concepts both are the same template.
  $<$<CXX_COMPILER_ID:Clang>:BOOST_ASIO_DISABLE_CONCEPTS>)
target_link_libraries(vantor_warnings INTERFACE vantor_asio_build)
target_compile_options(vantor_warnings INTERFACE -Wall -Wextra -Wpedantic
                       $<$<BOOL:${VANTOR_WERROR}>:-Werror>)
