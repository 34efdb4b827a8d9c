# What "cmake --install" lays out under the prefix:
#
#   bin/vxproxy                      the host program
#   lib/libvxproxy.so                the module (loaded with dlopen)
#   lib/libvxutils.so, libvxplatform.so   the libraries the module and hosts link
#   lib/pkgconfig/vxproxy.pc         flags for a host: headers and the two libraries
#   lib/cmake/VxProxy/               find_package(VxProxy): VxProxy::VxProxy, VXPROXY_MODULE
#   include/vxproxy/*.h              the public headers
#   share/vxproxy/                   the starter list (filters.txt) and the templates
#
# Nothing installed names the prefix: the program and the libraries find each
# other through $ORIGIN, the pkg-config file through ${pcfiledir} and the
# package through its own folder, so an installed tree can be moved as a whole.
include(CMakePackageConfigHelpers)

set(VX_INSTALL_BINDIR bin)
set(VX_INSTALL_LIBDIR lib)
set(VX_INSTALL_INCLUDEDIR include)
set(VX_INSTALL_DATADIR share/vxproxy)
set(VX_INSTALL_CMAKEDIR ${VX_INSTALL_LIBDIR}/cmake/VxProxy)
set(VX_MODULE_FILE ${CMAKE_SHARED_LIBRARY_PREFIX}vxproxy${CMAKE_SHARED_LIBRARY_SUFFIX})

# The program links the libraries in ../lib and loads the module from there
# (ModulePath in host/main.cpp); the module and vxutils find theirs beside them.
set_target_properties(vxproxy PROPERTIES INSTALL_RPATH "$ORIGIN/../${VX_INSTALL_LIBDIR}")
set_target_properties(vxproxy_module vxutils PROPERTIES INSTALL_RPATH "$ORIGIN")

install(TARGETS vxproxy RUNTIME DESTINATION ${VX_INSTALL_BINDIR})
install(TARGETS vxproxy_module vxutils vxplatform LIBRARY DESTINATION ${VX_INSTALL_LIBDIR})
install(DIRECTORY ${CMAKE_SOURCE_DIR}/include/vxproxy DESTINATION ${VX_INSTALL_INCLUDEDIR}
  FILES_MATCHING PATTERN "*.h")

install(FILES ${CMAKE_SOURCE_DIR}/data/default/filters.txt DESTINATION ${VX_INSTALL_DATADIR})
# Templates a packager fills in; an install goes on without those not written yet.
install(FILES ${CMAKE_SOURCE_DIR}/data/proxy.pac.in ${CMAKE_SOURCE_DIR}/data/vxproxy.service.in
  DESTINATION ${VX_INSTALL_DATADIR} OPTIONAL)

# pkg-config: a host compiles against the headers and links the two
# libraries; the module's path is the "module" variable.
set(VX_PC_DL_LIBS "")
foreach(lib ${CMAKE_DL_LIBS})
  string(APPEND VX_PC_DL_LIBS " -l${lib}")
endforeach()
configure_file(${CMAKE_CURRENT_LIST_DIR}/vxproxy.pc.in ${CMAKE_BINARY_DIR}/package/vxproxy.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/package/vxproxy.pc DESTINATION ${VX_INSTALL_LIBDIR}/pkgconfig)

# The CMake package.
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/VxProxyConfig.cmake.in
  ${CMAKE_BINARY_DIR}/package/VxProxyConfig.cmake
  INSTALL_DESTINATION ${VX_INSTALL_CMAKEDIR}
  PATH_VARS VX_INSTALL_INCLUDEDIR VX_INSTALL_LIBDIR VX_INSTALL_DATADIR)
# Before 1.0 the host interface may change between minor versions.
write_basic_package_version_file(${CMAKE_BINARY_DIR}/package/VxProxyConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_BINARY_DIR}/package/VxProxyConfig.cmake
  ${CMAKE_BINARY_DIR}/package/VxProxyConfigVersion.cmake DESTINATION ${VX_INSTALL_CMAKEDIR})
