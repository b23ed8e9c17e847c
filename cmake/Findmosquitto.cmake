# Finds libmosquitto, the MQTT client library: the target mosquitto::mosquitto.
find_library(mosquitto_LIBRARY mosquitto)
find_path(mosquitto_INCLUDE_DIR mosquitto.h)
mark_as_advanced(mosquitto_LIBRARY mosquitto_INCLUDE_DIR)

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(mosquitto DEFAULT_MSG mosquitto_LIBRARY mosquitto_INCLUDE_DIR)
if(mosquitto_FOUND AND NOT TARGET mosquitto::mosquitto)
  add_library(mosquitto::mosquitto UNKNOWN IMPORTED)
  set_target_properties(mosquitto::mosquitto PROPERTIES
    IMPORTED_LOCATION "${mosquitto_LIBRARY}"
    INTERFACE_INCLUDE_DIRECTORIES "${mosquitto_INCLUDE_DIR}")
endif()
