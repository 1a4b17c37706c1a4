# Installed layout: bin/ the programs, lib/ the host libraries and the plug-in (the CLI's ../lib rule),
# lib/python3/dist-packages the Python module; and a .deb of it that depends on Debian's runtime packages.
include(GNUInstallDirs)
set(TAV_PYTHON_INSTALL_DIR lib/python3/dist-packages CACHE STRING "Where the Python module is installed")

set_target_properties(tavtransform tav-quicklook PROPERTIES INSTALL_RPATH "$ORIGIN/../lib")
set(TAV_LIBS OrvUtility OrvGeometry OrvAlgo OrvDataSource TavTransformFunc)
set_target_properties(${TAV_LIBS} PROPERTIES INSTALL_RPATH "$ORIGIN")
install(TARGETS tavtransform tav-quicklook RUNTIME DESTINATION bin)
install(TARGETS ${TAV_LIBS} LIBRARY DESTINATION lib)
if(TARGET tavtransform_python)
  install(TARGETS tavtransform_python LIBRARY DESTINATION ${TAV_PYTHON_INSTALL_DIR})
endif()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME tavtransform)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Image transforms for multi-band rasters: Tasseled Cap, PCA, MNF, Fourier, wavelet")
set(CPACK_PACKAGE_CONTACT "TavTransform developers <tavtransform@localhost>")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION science)
# dpkg-shlibdeps names GDAL, Qt and the C++ runtime; our own libraries travel in the package.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_BINARY_DIR}/lib)
if(TARGET tavtransform_python)
  set(CPACK_DEBIAN_PACKAGE_DEPENDS "${TAV_PYTHON_DEPENDS}")
endif()
include(CPack)
