# The warnings for our own targets; code of others is built without them.
add_library(project_warnings INTERFACE)
target_compile_options(project_warnings INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion $<$<BOOL:${NUBO_DEVELOPER}>:-Werror>)
