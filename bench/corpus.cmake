# Where the shared benchmark corpus is: the cache variable TALVERN_CORPUS
# when set, else ../shared/corpus next to the sources, or two levels up when
# the sources are a worktree below the repository's parent. The result is
# an absolute path, or empty when none of these exists.
set(TALVERN_CORPUS "" CACHE PATH "Folder of the shared benchmark corpus")

function(talvern_find_corpus out)
  set(found "${TALVERN_CORPUS}")
  if(NOT found)
    foreach(candidate ${PROJECT_SOURCE_DIR}/../shared/corpus ${PROJECT_SOURCE_DIR}/../../shared/corpus)
      if(IS_DIRECTORY ${candidate})
        get_filename_component(found ${candidate} ABSOLUTE)
        break()
      endif()
    endforeach()
  endif()
  set(${out} "${found}" PARENT_SCOPE)
endfunction()
