# The installed package: find_package(VirelaAgent) gives virela::core, virela::headless and
# virela::devserver. virela::asio comes along because the static libraries above it link it.
include(CMakePackageConfigHelpers)

set(virela_package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/VirelaAgent)

install(TARGETS virela_core virela_asio virela_headless virela_devserver
  EXPORT VirelaAgentTargets
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})

# Headers keep their in-tree paths (include/core/..., include/platform/headless/...), so code
# written against the tree compiles against the package unchanged.
install(DIRECTORY core/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/core
  FILES_MATCHING PATTERN "*.hpp")
# net/ includes Asio and Beast, detail/ is what the sources share; no public header needs either.
install(DIRECTORY platform/headless/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/platform/headless
  FILES_MATCHING PATTERN "*.hpp" PATTERN "net" EXCLUDE PATTERN "detail" EXCLUDE)
# The local backend's interface is server.hpp, with the records it hands out and the TLS identity
# it takes; the rest is Beast.
install(FILES tools/devserver/server.hpp tools/devserver/records.hpp tools/devserver/tls.hpp
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/tools/devserver)

install(EXPORT VirelaAgentTargets NAMESPACE virela:: DESTINATION ${virela_package_dir})
configure_package_config_file(cmake/VirelaAgentConfig.cmake.in
  ${PROJECT_BINARY_DIR}/VirelaAgentConfig.cmake
  INSTALL_DESTINATION ${virela_package_dir})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/VirelaAgentConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/VirelaAgentConfig.cmake
  ${PROJECT_BINARY_DIR}/VirelaAgentConfigVersion.cmake
  DESTINATION ${virela_package_dir})
