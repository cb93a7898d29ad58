# The libraries a speech client links, built from the objects of the project's own libraries behind
# the `audiobufplayer` target (player and real platform), each in one file:
#   audiobufplayer_shared   libaudiobufplayer.so.<version>, soname libaudiobufplayer.so.<major.minor>;
#                           only what the public headers declare is visible
#   audiobufplayer_static   libaudiobufplayer.a
# Both carry the C++20 requirement of the public headers to whatever links them.
# Included by the top-level CMakeLists.txt once every library exists.

# The project's own libraries behind `target`, each after every library that links it (`out`), and
# what they link from outside the project (`out_external`). The platform grows libraries of its own;
# walking the links keeps this file from having to name them.
function(abp_libraries_behind target out out_external)
  set(ordered "")
  set(external "")
  set(pending ${target})
  while(pending)
    list(POP_FRONT pending current)
    list(REMOVE_ITEM ordered ${current})
    list(APPEND ordered ${current})
    get_target_property(links ${current} INTERFACE_LINK_LIBRARIES)
    foreach(link IN LISTS links)
      string(REGEX REPLACE "^\\$<LINK_ONLY:(.*)>$" "\\1" link "${link}")
      if(TARGET ${link})
        get_target_property(aliased ${link} ALIASED_TARGET)
        if(aliased)
          set(link ${aliased})
        endif()
        get_target_property(imported ${link} IMPORTED)
        if(NOT imported)
          list(APPEND pending ${link})
          continue()
        endif()
      endif()
      if(link)
        list(APPEND external ${link})
      endif()
    endforeach()
  endwhile()
  list(REMOVE_DUPLICATES external)
  set(${out} ${ordered} PARENT_SCOPE)
  set(${out_external} ${external} PARENT_SCOPE)
endfunction()

abp_libraries_behind(audiobufplayer abp_own_libraries abp_external_libraries)

foreach(kind IN ITEMS shared static)
  string(TOUPPER ${kind} type)
  set(library audiobufplayer_${kind})
  add_library(${library} ${type})
  foreach(own IN LISTS abp_own_libraries)
    get_target_property(own_type ${own} TYPE)
    if(own_type STREQUAL "STATIC_LIBRARY")
      target_sources(${library} PRIVATE $<TARGET_OBJECTS:${own}>)
    endif()
  endforeach()
  target_link_libraries(${library} PRIVATE ${abp_external_libraries})
  target_include_directories(${library} INTERFACE
    $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/core> $<BUILD_INTERFACE:${ABP_GENERATED_INCLUDE_DIR}>
    $<INSTALL_INTERFACE:include/qen>)
  target_compile_features(${library} INTERFACE cxx_std_20)
  set_target_properties(${library} PROPERTIES OUTPUT_NAME audiobufplayer)
endforeach()
# AUDIOBUFPLAYER_EXPORT marks what the shared library shows its clients; every other symbol of every
# library is hidden (CMAKE_CXX_VISIBILITY_PRESET in the top-level CMakeLists.txt). The objects are
# the same in both libraries, so the header is made for the shared one.
include(GenerateExportHeader)
generate_export_header(audiobufplayer_shared BASE_NAME AUDIOBUFPLAYER
  EXPORT_FILE_NAME ${ABP_GENERATED_INCLUDE_DIR}/audiobufplayer_export.h)
# Before 1.0 a minor version may change the interface, so the soname carries it.
set_target_properties(audiobufplayer_shared PROPERTIES EXPORT_NAME audiobufplayer
  VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR}.${PROJECT_VERSION_MINOR})
