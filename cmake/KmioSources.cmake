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

# Adds one internal static library made of the sources of a folder under src/.
function(kmio_component name dir)
  kmio_collect_sources(srcs "${dir}")
  if(NOT srcs)
    # A folder whose code has not arrived yet still yields a library, so that
    # the targets above it link.
    set(srcs ${CMAKE_CURRENT_BINARY_DIR}/${name}_empty.cpp)
    file(WRITE ${srcs} "")
  endif()
  add_library(${name} STATIC ${srcs})
  target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR}/src ${PROJECT_SOURCE_DIR}/include)
  target_compile_definitions(${name} PUBLIC KMIO_BUILDING_LIBRARY)
  target_link_libraries(${name} PUBLIC Threads::Threads)
endfunction()
