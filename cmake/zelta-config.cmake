# Read by find_package(zelta): zelta::zelta is the shared library, zelta::zelta_static the static one.
include(CMakeFindDependencyMacro)
find_dependency(Threads)
include(${CMAKE_CURRENT_LIST_DIR}/zelta-targets.cmake)
