# Batches of cold sources. Most of a source file's compile time goes to the
# standard library and Boost headers it includes, so sources that run once per
# run (options, loaders, reports) compile faster as one translation unit that
# includes them all; this roughly halves their share of a clean build.
# Per-read code (readers, writers, the aligner, the scorer, the workers) never
# joins a batch: its translation units stay as written, so its optimisation
# does not depend on which other files happen to share its unit.
#
# vb_compile_in_batches(<target> <batch> <source>...) puts the sources, given
# relative to the current folder, into the named batch of the target. Names
# with internal linkage must then be unique within a batch.
function(vb_compile_in_batches target batch)
  set_target_properties(${target} PROPERTIES UNITY_BUILD ON UNITY_BUILD_MODE GROUP)
  set_source_files_properties(${ARGN} TARGET_DIRECTORY ${target} PROPERTIES UNITY_GROUP ${target}_${batch})
endfunction()
