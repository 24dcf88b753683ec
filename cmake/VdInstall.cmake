# What `cmake --install` puts where, so that a host finds the library by CMake or by pkg-config.

include(CMakePackageConfigHelpers)

set(VD_PACKAGE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/VdDiscovery)

set(VD_INSTALLED_HEADERS ServiceDiscovery.h AvahiServiceDiscovery.h BonjourResponder.h
    ManagedServiceDiscovery.h)
if(NOT VD_SUPPORT_DIR)
    # Otherwise they are the host's, which has them already.
    list(APPEND VD_INSTALLED_HEADERS LogQt.h MACAddress.h Mutex.h)
endif()
list(TRANSFORM VD_INSTALLED_HEADERS PREPEND ${PROJECT_SOURCE_DIR}/include/vd/)

install(TARGETS vddiscovery EXPORT VdDiscoveryTargets LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(FILES ${VD_INSTALLED_HEADERS} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/vd)

if(VD_QT_MAJOR EQUAL 4)
    set(VD_FIND_QT_DEPENDENCY "find_dependency(Qt4 4.8 COMPONENTS QtCore QtNetwork)")
    set(VD_PC_QT "QtCore >= 4.8, QtNetwork >= 4.8")
elseif(VD_QT_MAJOR EQUAL 5)
    set(VD_FIND_QT_DEPENDENCY "find_dependency(Qt5 5.15 COMPONENTS Core Network)")
    set(VD_PC_QT "Qt5Core >= 5.15, Qt5Network >= 5.15")
else()
    set(VD_FIND_QT_DEPENDENCY "find_dependency(Qt6 6.4 COMPONENTS Core Network)")
    set(VD_PC_QT "Qt6Core >= 6.4, Qt6Network >= 6.4")
endif()

install(EXPORT VdDiscoveryTargets NAMESPACE Vd:: DESTINATION ${VD_PACKAGE_DIR})
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/VdDiscoveryConfig.cmake.in
    ${CMAKE_CURRENT_BINARY_DIR}/VdDiscoveryConfig.cmake
    INSTALL_DESTINATION ${VD_PACKAGE_DIR}
    NO_SET_AND_CHECK_MACRO)
# Before 1.0 a minor version may break its users.
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/VdDiscoveryConfigVersion.cmake
    COMPATIBILITY SameMinorVersion)
install(FILES
    ${CMAKE_CURRENT_BINARY_DIR}/VdDiscoveryConfig.cmake
    ${CMAKE_CURRENT_BINARY_DIR}/VdDiscoveryConfigVersion.cmake
    DESTINATION ${VD_PACKAGE_DIR})

# Relative to the file itself, so that the installed tree may be moved.
file(RELATIVE_PATH VD_PC_PREFIX ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" VD_PC_PREFIX "${VD_PC_PREFIX}")
file(RELATIVE_PATH VD_PC_LIBDIR ${CMAKE_INSTALL_PREFIX} ${CMAKE_INSTALL_FULL_LIBDIR})
file(RELATIVE_PATH VD_PC_INCLUDEDIR ${CMAKE_INSTALL_PREFIX} ${CMAKE_INSTALL_FULL_INCLUDEDIR})
configure_file(${PROJECT_SOURCE_DIR}/cmake/vddiscovery.pc.in ${CMAKE_CURRENT_BINARY_DIR}/vddiscovery.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/vddiscovery.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
