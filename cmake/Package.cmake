# What other projects find with find_package(QuillmereKit): the targets Quillmere::Kit and Quillmere::Renderers.
include(CMakePackageConfigHelpers)
include(GNUInstallDirs)

set_target_properties(QuillmereKit PROPERTIES EXPORT_NAME Kit)
set_target_properties(QuillmereRenderers PROPERTIES EXPORT_NAME Renderers)
install(TARGETS QuillmereKit QuillmereRenderers EXPORT QuillmereKitTargets FILE_SET HEADERS)
install(DIRECTORY QuillmereKit/Resources/ DESTINATION ${CMAKE_INSTALL_DATADIR}/quillmerekit)

set(packageFolder ${CMAKE_INSTALL_LIBDIR}/cmake/QuillmereKit)
install(EXPORT QuillmereKitTargets NAMESPACE Quillmere:: DESTINATION ${packageFolder})
configure_package_config_file(
  cmake/QuillmereKitConfig.cmake.in ${PROJECT_BINARY_DIR}/QuillmereKitConfig.cmake INSTALL_DESTINATION ${packageFolder})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/QuillmereKitConfigVersion.cmake COMPATIBILITY SameMinorVersion)
install(
  FILES ${PROJECT_BINARY_DIR}/QuillmereKitConfig.cmake ${PROJECT_BINARY_DIR}/QuillmereKitConfigVersion.cmake
  DESTINATION ${packageFolder})
