# Collects the sources of one folder for the platform being built: portable
# files plus the matching per-OS twins. name_posix.cpp runs on any POSIX
# system, name_linux.cpp uses Linux-only interfaces, name_win32.cpp is the
# Windows twin.
function(kmio_collect_sources out dir)
  file(GLOB all CONFIGURE_DEPENDS "${dir}/*.cpp")
  if(WIN32)
    list(FILTER all EXCLUDE REGEX "_(posix|linux)\\.cpp$")
  elseif(CMAKE_SYSTEM_NAME STREQUAL "Linux")
    list(FILTER all EXCLUDE REGEX "_win32\\.cpp$")
    # A Linux twin replaces the POSIX one of the same name: both implement
    # the same hook, the Linux one with Linux-only interfaces.
    foreach(file ${all})
      if(file MATCHES "^(.*)_linux\\.cpp$")
        list(REMOVE_ITEM all "${CMAKE_MATCH_1}_posix.cpp")
      endif()
    endforeach()
  else()
    list(FILTER all EXCLUDE REGEX "_(win32|linux)\\.cpp$")
  endif()
  set(${out} ${all} PARENT_SCOPE)
endfunction()

# Gives a target an include root of its own under the build folder, holding
# links to the src/ folders it may include: its own and those of the layers
# below it. An include that points up a layer or across to another link then
# fails to compile, instead of merely failing to link.
function(kmio_layer_include_root name)
  set(root ${CMAKE_BINARY_DIR}/layer-include/${name})
  file(REMOVE_RECURSE ${root})
  file(MAKE_DIRECTORY ${root})
  foreach(folder ${ARGN})
    file(CREATE_LINK ${PROJECT_SOURCE_DIR}/src/${folder} ${root}/${folder} SYMBOLIC)
  endforeach()
  set_target_properties(${name} PROPERTIES KMIO_LAYERED ON)
  # Targets outside the layers (tests, tools, fuzz targets) see all of src/;
  # the layers themselves see only their own root.
  target_include_directories(${name} PRIVATE ${root} PUBLIC ${PROJECT_SOURCE_DIR}/include
    INTERFACE $<$<NOT:$<BOOL:$<TARGET_PROPERTY:KMIO_LAYERED>>>:${PROJECT_SOURCE_DIR}/src>)
endfunction()

# Adds one internal static library made of the sources of a folder under
# src/; BELOW names the src/ folders of the layers it builds on.
function(kmio_component name dir)
  cmake_parse_arguments(C "" "" "BELOW" ${ARGN})
  kmio_collect_sources(srcs "${dir}")
  if(NOT srcs)
    # A folder whose code has not arrived yet still yields a library, so that
    # the targets above it link.
    set(srcs ${CMAKE_CURRENT_BINARY_DIR}/${name}_empty.cpp)
    file(WRITE ${srcs} "")
  endif()
  add_library(${name} STATIC ${srcs})
  get_filename_component(folder "${dir}" NAME)
  kmio_layer_include_root(${name} ${folder} ${C_BELOW})
  target_compile_definitions(${name} PUBLIC KMIO_BUILDING_LIBRARY)
  target_link_libraries(${name} PUBLIC Threads::Threads)
endfunction()
