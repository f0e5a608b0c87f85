# kestrune_room(FOLDER ROOMS ... LINKS ...): builds the sources of a folder, without main.cpp, as the static library
# room_<last part of FOLDER>. ROOMS are the rooms whose headers the sources include; each must be declared before, which
# prevents cycles. LINKS are external libraries. The test house.includes reads ROOMS in the file rooms.txt.
function(kestrune_room folder)
  cmake_parse_arguments(ARG "" "" "ROOMS;LINKS" ${ARGN})
  get_filename_component(name ${folder} NAME)
  file(GLOB sources CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/${folder}/*.cpp)
  list(REMOVE_ITEM sources ${CMAKE_SOURCE_DIR}/${folder}/main.cpp)
  set(libraries kestrune_options)
  foreach(room IN LISTS ARG_ROOMS)
    get_filename_component(below ${room} NAME)
    if(NOT TARGET room_${below})
      message(FATAL_ERROR "${folder} uses ${room}, which is not declared before it")
    endif()
    list(APPEND libraries room_${below})
  endforeach()
  if(sources)
    add_library(room_${name} STATIC ${sources})
    target_link_libraries(room_${name} PUBLIC ${libraries} ${ARG_LINKS})
    # Compile each room as one source, because shared headers take most of the compile time.
    set_target_properties(room_${name} PROPERTIES UNITY_BUILD ON UNITY_BUILD_BATCH_SIZE 0)
    # Silence a warning: GCC takes an included .cpp for a header and warns about its anonymous namespaces.
    target_compile_options(room_${name} PRIVATE $<$<CXX_COMPILER_ID:GNU>:-Wno-subobject-linkage>)
  else()
    add_library(room_${name} INTERFACE)
    target_link_libraries(room_${name} INTERFACE ${libraries} ${ARG_LINKS})
  endif()
  set_property(GLOBAL APPEND_STRING PROPERTY KESTRUNE_ROOMS "${folder}: ${ARG_ROOMS}\n")
endfunction()
