# Each folder's program runs once as a whole: to start a process under Wine takes longer than most
# tests do. What left_out.txt names is left out.
set(left_out_file ${CMAKE_CURRENT_LIST_DIR}/left_out.txt)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${left_out_file})
file(STRINGS ${left_out_file} left_out_lines REGEX "^[^# ]")

function(zelta_windows_test folder)
  set(filter "")
  foreach(line IN LISTS left_out_lines)
    string(REGEX MATCH "^${folder}/([^ ]+)" match "${line}")
    if(match)
      string(APPEND filter ":${CMAKE_MATCH_1}")
    endif()
  endforeach()
  string(REGEX REPLACE "^:" "-" filter "${filter}")
  add_test(NAME ${folder} COMMAND test_${folder} --gtest_brief=1 --gtest_filter=${filter})
  set_tests_properties(${folder} PROPERTIES TIMEOUT 600)
endfunction()
