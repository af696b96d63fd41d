# A room is a folder with a target of its name. Its headers are included by the room's name ("server/memory.h"), and
# are found by the room itself and by whoever links to it: an include that no link line allows does not compile.
function(add_room name)
    cmake_parse_arguments(ROOM "" "" "SOURCES;KNOWS" ${ARGN})
    set(door ${PROJECT_BINARY_DIR}/rooms/${name})
    file(MAKE_DIRECTORY ${door})
    file(CREATE_LINK ${PROJECT_SOURCE_DIR}/${name} ${door}/${name} SYMBOLIC)
    add_library(${name} OBJECT ${ROOM_SOURCES})
    target_include_directories(${name} PUBLIC ${door})
    target_link_libraries(${name} PUBLIC ${ROOM_KNOWS})
endfunction()
