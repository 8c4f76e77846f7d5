# Warnings live in a private interface target so that they never reach a
# consumer's build through the exported targets.
add_library(vantor_warnings INTERFACE)
target_compile_options(vantor_warnings INTERFACE -Wall -Wextra -Wpedantic
                       $<$<BOOL:${VANTOR_WERROR}>:-Werror>)
