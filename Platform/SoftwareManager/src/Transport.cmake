# Client side of the software manager transport, added to the Zun::SoftwareManager library.
list(APPEND ZUN_SOFTWARE_MANAGER_SOURCES
  ${CMAKE_CURRENT_LIST_DIR}/DefaultPaths.cpp
  ${CMAKE_CURRENT_LIST_DIR}/FrameCodec.cpp
  ${CMAKE_CURRENT_LIST_DIR}/SocketChannel.cpp
  ${CMAKE_CURRENT_LIST_DIR}/SoftwareManagerServiceProxy.cpp)
