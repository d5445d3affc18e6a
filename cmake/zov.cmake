# Helpers shared by the folders' CMakeLists.

# zov_static_library(NAME DIRS dir... [EXCLUDE file...] [DEPS lib...])
# A static library of every .c/.cpp file directly inside the given folders.
# Folders glob their sources so that adding a file needs no build edit.
function(zov_static_library name)
  cmake_parse_arguments(ZL "" "" "DIRS;DEPS;EXCLUDE" ${ARGN})
  set(srcs)
  foreach(d ${ZL_DIRS})
    file(GLOB s CONFIGURE_DEPENDS ${d}/*.cpp ${d}/*.c)
    list(APPEND srcs ${s})
  endforeach()
  if(ZL_EXCLUDE)
    list(REMOVE_ITEM srcs ${ZL_EXCLUDE})
  endif()
  add_library(${name} STATIC ${srcs})
  if(ZL_DEPS)
    target_link_libraries(${name} PUBLIC ${ZL_DEPS})
  endif()
endfunction()

# zov_test_binary(NAME DIR [DEPS lib...])
# One GoogleTest binary per test folder, registered with CTest under its name.
function(zov_test_binary name dir)
  cmake_parse_arguments(ZT "" "" "DEPS" ${ARGN})
  file(GLOB srcs CONFIGURE_DEPENDS ${dir}/*.cpp)
  if(NOT srcs)
    return()
  endif()
  add_executable(${name} ${srcs})
  target_link_libraries(${name} PRIVATE ${ZT_DEPS} GTest::gtest GTest::gtest_main Threads::Threads)
  add_test(NAME ${name} COMMAND ${name} --gtest_brief=1)
  set_tests_properties(${name} PROPERTIES TIMEOUT 600
    ENVIRONMENT "ZOV_BUILD_DIR=${CMAKE_BINARY_DIR};ZOV_SOURCE_DIR=${CMAKE_SOURCE_DIR}")
endfunction()
