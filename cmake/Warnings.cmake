# The warnings that our own targets are built with, never those of others.
add_library(project_warnings INTERFACE)
target_compile_options(project_warnings INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion $<$<BOOL:${NUBO_DEVELOPER}>:-Werror>)
