# What `cmake --install` puts under the prefix, for a speech client to build against:
#   include/qen/...                     the public headers only, in the core/ layout
#                                       ("Audio/Players/Impl_iOS/AudioBufPlayer.h")
#   lib/libaudiobufplayer.so*, .a       the player with the real platform, shared and static
#   lib/cmake/AudioBufPlayer/           find_package(AudioBufPlayer) -> AudioBufPlayer::audiobufplayer
#                                       (shared) or AudioBufPlayer::audiobufplayer_static
#   lib/pkgconfig/audiobufplayer.pc     pkg-config --cflags --libs [--static] audiobufplayer
# Included at the end of the top-level CMakeLists.txt, after AudioBufPlayerLibraries.cmake.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

install(TARGETS audiobufplayer_shared audiobufplayer_static EXPORT AudioBufPlayerTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})

# The player, its delegate with the error types, the formats, the types of the handles and status
# codes they use, the choice of sound output with the queue counters, and the log control.
set(abp_public_headers
  Audio/Players/Impl_iOS/AudioBufPlayer.h
  Audio/Players/Impl_iOS/AudioBufPlayerDelegate.h
  Audio/Players/qen_AudioPlayer.h
  Audio/Platform/PlatformTypes.h
  Audio/Platform/OutputQueue/OutputDevices.h
  Diagnostics/qen_log_control.h)
foreach(header IN LISTS abp_public_headers)
  get_filename_component(folder ${header} DIRECTORY)
  install(FILES ${PROJECT_SOURCE_DIR}/core/${header} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/qen/${folder})
endforeach()
install(FILES ${ABP_GENERATED_INCLUDE_DIR}/audiobufplayer_export.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/qen)

set(abp_cmake_dir ${CMAKE_INSTALL_LIBDIR}/cmake/AudioBufPlayer)
install(EXPORT AudioBufPlayerTargets NAMESPACE AudioBufPlayer:: DESTINATION ${abp_cmake_dir})
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/AudioBufPlayerConfig.cmake.in
  ${PROJECT_BINARY_DIR}/AudioBufPlayerConfig.cmake INSTALL_DESTINATION ${abp_cmake_dir})
# Before 1.0 a minor version may change the interface.
write_basic_package_version_file(${PROJECT_BINARY_DIR}/AudioBufPlayerConfigVersion.cmake
  COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/AudioBufPlayerConfig.cmake ${PROJECT_BINARY_DIR}/AudioBufPlayerConfigVersion.cmake
  DESTINATION ${abp_cmake_dir})

# pkg-config: found relative to the .pc file, so that the installed tree can be moved.
set(ABP_PC_LIBS_PRIVATE "-pthread")
foreach(library IN LISTS CMAKE_DL_LIBS)
  string(APPEND ABP_PC_LIBS_PRIVATE " -l${library}")
endforeach()
file(RELATIVE_PATH ABP_PC_PREFIX_FROM_PC_DIR ${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR}/pkgconfig
  ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" ABP_PC_PREFIX_FROM_PC_DIR "${ABP_PC_PREFIX_FROM_PC_DIR}")
configure_file(${CMAKE_CURRENT_LIST_DIR}/audiobufplayer.pc.in ${PROJECT_BINARY_DIR}/audiobufplayer.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/audiobufplayer.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
