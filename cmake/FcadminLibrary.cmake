# The library (shared and static from one source list) and the host platform services.

set(FCADMIN_LIBRARY_FLAGS -fvisibility=hidden -fvisibility-inlines-hidden -fno-exceptions -fno-rtti)

file(GLOB FCADMIN_SOURCES CONFIGURE_DEPENDS
     ${PROJECT_SOURCE_DIR}/common/*.cpp
     ${PROJECT_SOURCE_DIR}/shm/*.cpp
     ${PROJECT_SOURCE_DIR}/xfer/*.cpp
     ${PROJECT_SOURCE_DIR}/fileutil/*.cpp)

add_library(fcadmin_objects OBJECT ${FCADMIN_SOURCES})
target_compile_options(fcadmin_objects PRIVATE ${FCADMIN_LIBRARY_FLAGS})
target_compile_definitions(fcadmin_objects PRIVATE FCADMIN_BUILDING _GNU_SOURCE
                           PUBLIC ${FCADMIN_PATH_DEFINITIONS})
target_include_directories(fcadmin_objects
  PUBLIC $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include> $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>
  PRIVATE ${PROJECT_SOURCE_DIR})
target_link_libraries(fcadmin_objects PUBLIC OpenSSL::Crypto Threads::Threads)

foreach(kind shared static)
  if(kind STREQUAL "shared")
    add_library(fcadmin_${kind} SHARED $<TARGET_OBJECTS:fcadmin_objects>)
    set_target_properties(fcadmin_${kind} PROPERTIES EXPORT_NAME fcadmin
                          VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR})
    target_link_libraries(fcadmin_${kind} PRIVATE OpenSSL::Crypto PUBLIC Threads::Threads)
  else()
    add_library(fcadmin_${kind} STATIC $<TARGET_OBJECTS:fcadmin_objects>)
    set_target_properties(fcadmin_${kind} PROPERTIES EXPORT_NAME fcadmin_static)
    target_link_libraries(fcadmin_${kind} PUBLIC OpenSSL::Crypto Threads::Threads)
  endif()
  set_target_properties(fcadmin_${kind} PROPERTIES OUTPUT_NAME fcadmin)
  target_include_directories(fcadmin_${kind} PUBLIC
    $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include> $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
  target_compile_definitions(fcadmin_${kind} PUBLIC ${FCADMIN_PATH_DEFINITIONS})
endforeach()
add_library(fcadmin::fcadmin ALIAS fcadmin_shared)
add_library(fcadmin::fcadmin_static ALIAS fcadmin_static)

# Host platform services: what a device platform supplies, for an ordinary Linux host.
file(GLOB FCADMIN_HOST_SOURCES CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/host/*.cpp)
add_library(fcadmin_host_objects OBJECT ${FCADMIN_HOST_SOURCES} ${PROJECT_SOURCE_DIR}/common/format.cpp)
target_compile_options(fcadmin_host_objects PRIVATE ${FCADMIN_LIBRARY_FLAGS})
target_compile_definitions(fcadmin_host_objects PRIVATE FCADMIN_BUILDING_HOST _GNU_SOURCE
                           PUBLIC ${FCADMIN_PATH_DEFINITIONS})
target_include_directories(fcadmin_host_objects PUBLIC $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include>
                           PRIVATE ${PROJECT_SOURCE_DIR})
target_link_libraries(fcadmin_host_objects PUBLIC OpenSSL::Crypto)

add_library(fcadmin_host_shared SHARED $<TARGET_OBJECTS:fcadmin_host_objects>)
target_link_libraries(fcadmin_host_shared PRIVATE OpenSSL::Crypto)
set_target_properties(fcadmin_host_shared PROPERTIES EXPORT_NAME host
                      VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR})
add_library(fcadmin_host_static STATIC $<TARGET_OBJECTS:fcadmin_host_objects>)
target_link_libraries(fcadmin_host_static PUBLIC OpenSSL::Crypto)
set_target_properties(fcadmin_host_static PROPERTIES EXPORT_NAME host_static)
foreach(kind shared static)
  set_target_properties(fcadmin_host_${kind} PROPERTIES OUTPUT_NAME fcadmin_host)
  target_include_directories(fcadmin_host_${kind} PUBLIC
    $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include> $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
endforeach()
add_library(fcadmin::host ALIAS fcadmin_host_shared)
add_library(fcadmin::host_static ALIAS fcadmin_host_static)
