# Framework libraries that need the service records; included after ServiceContracts.

zun_add_library(ZunSoftwareManager ALIAS Zun::SoftwareManager OUTPUT Zun.Services.SoftwareManager
  SOURCES ${ZUN_SOFTWARE_MANAGER_SOURCES}
  PUBLIC_LINK Zun::SoftwareManagerTypes Zun::ServiceContracts Zun::Rsc)

zun_add_library(ZunSoftwareUpdate ALIAS Zun::SoftwareUpdate OUTPUT Zun.Services.SoftwareUpdate
  SOURCES
    ${CMAKE_CURRENT_LIST_DIR}/SoftwareUpdate/src/InstallationState.cpp
    ${CMAKE_CURRENT_LIST_DIR}/SoftwareUpdate/src/IUpdaterModule.cpp
    ${CMAKE_CURRENT_LIST_DIR}/SoftwareUpdate/src/StatusCode.cpp
  PUBLIC_LINK Zun::SoftwareUpdateTypes Zun::ServiceContracts)
