# find_package(libutils) gives the target utils::utils.
include("${CMAKE_CURRENT_LIST_DIR}/libutils-targets.cmake")
