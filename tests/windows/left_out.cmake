# Each folder's program runs once as a whole, by run.sh: to start a process under Wine takes longer
# than most tests do. The source files that left_out.txt names are left out here.
set(left_out_file ${CMAKE_CURRENT_LIST_DIR}/left_out.txt)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${left_out_file})
file(STRINGS ${left_out_file} left_out_lines REGEX "^[a-z]+/[^ ]+\\.cpp ")

# Takes the source files that are left out from a list of a folder's sources.
function(zelta_without_left_out folder list)
  foreach(line IN LISTS left_out_lines)
    if(line MATCHES "^(${folder}/[^ ]+)")
      list(REMOVE_ITEM ${list} ${CMAKE_CURRENT_SOURCE_DIR}/${CMAKE_MATCH_1})
    endif()
  endforeach()
  set(${list} ${${list}} PARENT_SCOPE)
endfunction()

function(zelta_windows_test folder)
  add_test(NAME ${folder} COMMAND bash ${CMAKE_CURRENT_SOURCE_DIR}/windows/run.sh
    ${CMAKE_CROSSCOMPILING_EMULATOR} $<TARGET_FILE:test_${folder}> ${folder})
  set_tests_properties(${folder} PROPERTIES TIMEOUT 900)
endfunction()
