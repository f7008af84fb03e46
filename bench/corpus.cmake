# Where the benchmark corpus is: the cache variable TALVERN_CORPUS when set,
# else the copy kept in the repository (bench/corpus). The result is an
# absolute path, or empty when the folder does not exist.
set(TALVERN_CORPUS "" CACHE PATH "Folder of the benchmark corpus")

function(talvern_find_corpus out)
  set(found "${TALVERN_CORPUS}")
  if(NOT found)
    set(found ${PROJECT_SOURCE_DIR}/bench/corpus)
  endif()
  if(IS_DIRECTORY ${found})
    get_filename_component(found ${found} ABSOLUTE)
  else()
    set(found "")
  endif()
  set(${out} "${found}" PARENT_SCOPE)
endfunction()
