include(CMakePackageConfigHelpers)

install(TARGETS usemeter EXPORT usemeterTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
    INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
# The public headers, and apart from them the advanced ones of the library's other classes.
install(FILES
        include/usemeter/usemeter.h include/usemeter/export.h include/usemeter/statistic.hpp
        include/usemeter/orb_accessor.hpp include/usemeter/product_locations.hpp
        include/usemeter/path.hpp
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/usemeter)
install(FILES
        include/usemeter/sys/active_user_detector.hpp include/usemeter/sys/datetime.hpp
        include/usemeter/sys/filelock.hpp include/usemeter/sys/host_facts.hpp
        include/usemeter/sys/http_connector.hpp include/usemeter/sys/statistic_impl.hpp
        include/usemeter/sys/statistic_impl_ga.hpp
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/usemeter/sys)

set(config_dir ${CMAKE_INSTALL_LIBDIR}/cmake/usemeter)
install(EXPORT usemeterTargets NAMESPACE usemeter:: DESTINATION ${config_dir})
configure_package_config_file(cmake/usemeterConfig.cmake.in
    ${PROJECT_BINARY_DIR}/usemeterConfig.cmake INSTALL_DESTINATION ${config_dir})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/usemeterConfigVersion.cmake
    COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/usemeterConfig.cmake
              ${PROJECT_BINARY_DIR}/usemeterConfigVersion.cmake
        DESTINATION ${config_dir})

# The .pc file finds its prefix from its own location, so `cmake --install --prefix` works.
file(RELATIVE_PATH USEMETER_PC_TO_PREFIX ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
configure_file(cmake/usemeter.pc.in ${PROJECT_BINARY_DIR}/usemeter.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/usemeter.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
