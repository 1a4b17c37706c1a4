# The QGIS plug-in tavtransform_qgis, where QGIS looks for system plug-ins (/usr/share/qgis/python/plugins
# in the package), with the way back to the Python module of the same installation.
set(TAV_QGIS_PLUGIN_DIR share/qgis/python/plugins CACHE STRING "Where the QGIS plug-in is installed")
set(plugin_dir ${TAV_QGIS_PLUGIN_DIR}/tavtransform_qgis)
set(module_dir ${TAV_PYTHON_INSTALL_DIR})
if(NOT IS_ABSOLUTE "${module_dir}")
  file(RELATIVE_PATH module_dir /prefix/${plugin_dir} /prefix/${module_dir})
endif()
file(WRITE ${CMAKE_BINARY_DIR}/qgis/installed_paths.py
     "# Written by the build: the tavtransform module's folder, relative to this plug-in's.\nPYTHON_DIR = \"${module_dir}\"\n")
install(DIRECTORY ${CMAKE_SOURCE_DIR}/qgis/tavtransform_qgis/ DESTINATION ${plugin_dir}
        FILES_MATCHING PATTERN "*.py" PATTERN "metadata.txt" PATTERN "__pycache__" EXCLUDE)
install(FILES ${CMAKE_BINARY_DIR}/qgis/installed_paths.py DESTINATION ${plugin_dir})
# The programs and the module run without QGIS; the plug-in is there for whoever has it.
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "qgis, python3-qgis")
