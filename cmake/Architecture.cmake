# Which parts of the project may include which, checked on every build:
#   the core (mdns/) includes nothing of the search library;
#   the reverse lookup includes nothing of the core or the search;
#   the search includes nothing of the reverse lookup;
#   the browser includes nothing of the search or the reverse lookup;
#   the shared records and text helpers include neither;
#   inside the core, a layer includes only itself and the layers below it:
#   wire/ (bytes and names) < platform/ (host, clock, sockets) < cache/ (the
#   record store) < ask/ (questions' groups, askers, send governor) < engine/
#   (events, resolves, the public entry points).
# Run as a script: cmake -DROOT=<source dir> -P Architecture.cmake
if(CMAKE_SCRIPT_MODE_FILE)
  set(rules
    "mdns|sorvalen/|search/|reverse_lookup/"
    "src/reverse_lookup|mdns/|search/|sorvalen/mdns_search"
    "src/search|reverse_lookup/|sorvalen/dns_reverse_lookup|browser/"
    "src/browser|reverse_lookup/|search/|sorvalen/dns_reverse_lookup|sorvalen/mdns_search"
    "src/common|mdns/|search/|reverse_lookup/|sorvalen/mdns_search|sorvalen/dns_reverse_lookup"
    "mdns/src/wire|platform/|cache/|ask/|engine/"
    "mdns/src/platform|cache/|ask/|engine/"
    "mdns/src/cache|ask/|engine/"
    "mdns/src/ask|engine/")
  set(failures "")
  foreach(rule ${rules})
    string(REPLACE "|" ";" parts "${rule}")
    list(POP_FRONT parts dir)
    file(GLOB_RECURSE files "${ROOT}/${dir}/*.h" "${ROOT}/${dir}/*.cpp")
    list(FILTER files EXCLUDE REGEX "/(tests|fuzz)/")
    foreach(file ${files})
      file(STRINGS "${file}" includes REGEX "^[ \t]*#[ \t]*include[ \t]*\"")
      foreach(line ${includes})
        foreach(forbidden ${parts})
          string(FIND "${line}" "\"${forbidden}" at)
          if(NOT at EQUAL -1)
            string(APPEND failures "\n  ${file}: ${line}")
          endif()
        endforeach()
      endforeach()
    endforeach()
  endforeach()
  if(failures)
    message(FATAL_ERROR "includes across the project's layers:${failures}")
  endif()
  return()
endif()

add_custom_target(architecture_check
  COMMAND ${CMAKE_COMMAND} -DROOT=${PROJECT_SOURCE_DIR} -P ${CMAKE_CURRENT_LIST_FILE}
  COMMENT "Checking which parts include which")
