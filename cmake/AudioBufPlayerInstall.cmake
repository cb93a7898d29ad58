# What `cmake --install` puts under the prefix, for a speech client to build against:
#   include/qen/...                     the headers, in the core/ layout ("Audio/Players/Impl_iOS/AudioBufPlayer.h")
#   lib/libqen_*.a                      the player and the real platform, static
#   lib/cmake/AudioBufPlayer/           find_package(AudioBufPlayer) -> AudioBufPlayer::audiobufplayer
#   lib/pkgconfig/audiobufplayer.pc     pkg-config --cflags --libs audiobufplayer
# Included at the end of the top-level CMakeLists.txt, once every library exists.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

# The project's own libraries behind `target`, each after every library that links it, so that the
# list is also a valid static link order. The platform grows libraries of its own; walking the
# links keeps this file from having to name them.
function(abp_libraries_behind target out)
  set(ordered "")
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
        endif()
      endif()
    endforeach()
  endwhile()
  set(${out} ${ordered} PARENT_SCOPE)
endfunction()

abp_libraries_behind(audiobufplayer abp_installed_targets)

install(TARGETS ${abp_installed_targets} EXPORT AudioBufPlayerTargets
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/qen)
install(DIRECTORY ${PROJECT_SOURCE_DIR}/core/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/qen
  FILES_MATCHING PATTERN "*.h")

set(abp_cmake_dir ${CMAKE_INSTALL_LIBDIR}/cmake/AudioBufPlayer)
install(EXPORT AudioBufPlayerTargets NAMESPACE AudioBufPlayer:: DESTINATION ${abp_cmake_dir})
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/AudioBufPlayerConfig.cmake.in
  ${PROJECT_BINARY_DIR}/AudioBufPlayerConfig.cmake INSTALL_DESTINATION ${abp_cmake_dir})
# Before 1.0 a minor version may change the interface.
write_basic_package_version_file(${PROJECT_BINARY_DIR}/AudioBufPlayerConfigVersion.cmake
  COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/AudioBufPlayerConfig.cmake ${PROJECT_BINARY_DIR}/AudioBufPlayerConfigVersion.cmake
  DESTINATION ${abp_cmake_dir})

# pkg-config: the static libraries in link order, found relative to the .pc file so that the
# installed tree can be moved.
set(ABP_PC_LIBS "")
foreach(library IN LISTS abp_installed_targets)
  get_target_property(type ${library} TYPE)
  if(type STREQUAL "STATIC_LIBRARY")
    string(APPEND ABP_PC_LIBS " -l${library}")
  endif()
endforeach()
foreach(library IN LISTS CMAKE_DL_LIBS)
  string(APPEND ABP_PC_LIBS " -l${library}")
endforeach()
file(RELATIVE_PATH ABP_PC_PREFIX_FROM_PC_DIR ${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR}/pkgconfig
  ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" ABP_PC_PREFIX_FROM_PC_DIR "${ABP_PC_PREFIX_FROM_PC_DIR}")
configure_file(${CMAKE_CURRENT_LIST_DIR}/audiobufplayer.pc.in ${PROJECT_BINARY_DIR}/audiobufplayer.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/audiobufplayer.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
