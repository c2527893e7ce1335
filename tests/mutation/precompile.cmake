# Most of what a changed source takes to compile is its headers: they are compiled
# once. The target is not there yet when this is read.
cmake_language(DEFER CALL
  target_precompile_headers lumso_bluetooth_plugin PRIVATE ${LUMSO_MUTATION_HEADERS})
