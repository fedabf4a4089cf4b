# The library's interface is every name declared with QV_API in the public
# headers: the version script exports exactly those, and a test compares the
# built library's dynamic symbol table with the same list.

# Collects the names declared with QV_API in the given headers.
function(quorvin_export_list headers out_var)
  set(names "")
  foreach(header IN LISTS headers)
    file(READ ${header} text)
    # Join continuation lines so that each declaration is one statement.
    string(REGEX REPLACE "#[^\n]*" "" text "${text}")
    string(REGEX REPLACE "\n[ \t]*" " " text "${text}")
    string(REGEX MATCHALL "QV_API[^;]*" declarations "${text}")
    foreach(declaration IN LISTS declarations)
      if(declaration MATCHES "^QV_API[^(]*[^A-Za-z0-9_]([A-Za-z_][A-Za-z0-9_]*)[ \t]*\\(")
        list(APPEND names ${CMAKE_MATCH_1})
      elseif(declaration MATCHES "([A-Za-z_][A-Za-z0-9_]*)[ \t]*(\\[[A-Za-z0-9_ ]*\\])?[ \t]*$")
        list(APPEND names ${CMAKE_MATCH_1})
      endif()
    endforeach()
  endforeach()
  list(REMOVE_DUPLICATES names)
  list(SORT names)
  set(${out_var} ${names} PARENT_SCOPE)
endfunction()

function(quorvin_write_export_files names list_file map_file)
  string(REPLACE ";" "\n" lines "${names}")
  file(CONFIGURE OUTPUT ${list_file} CONTENT "${lines}\n")
  string(REPLACE ";" ";\n    " globals "${names}")
  file(CONFIGURE OUTPUT ${map_file}
       CONTENT "{\n  global:\n    ${globals};\n  local:\n    *;\n};\n")
endfunction()
