# The one place that knows the Qt version. Everything else links ulmo::dbus and calls
# ulmo_add_dbus_proxy().
if(ULMO_QT EQUAL 4)
    find_package(Qt4 4.8 REQUIRED QtCore QtDBus)
    set(ulmo_qt Qt4::QtCore Qt4::QtDBus)
    set(ulmo_qdbusxml2cpp Qt4::qdbusxml2cpp)
elseif(ULMO_QT EQUAL 5)
    find_package(Qt5 5.15 REQUIRED COMPONENTS Core DBus)
    set(ulmo_qt Qt5::Core Qt5::DBus)
    set(ulmo_qdbusxml2cpp Qt5::qdbusxml2cpp)
else()
    message(FATAL_ERROR "ULMO_QT must be 4 or 5, not \"${ULMO_QT}\"")
endif()

add_library(ulmo::dbus INTERFACE IMPORTED)
target_link_libraries(ulmo::dbus INTERFACE ${ulmo_qt})

# ulmo_add_dbus_proxy(SOURCES DESCRIPTION CLASS HEADER)
# Generates CLASS.h and CLASS.cpp, the client proxy of the one interface in DESCRIPTION (an XML file
# of D-Bus introspection), which includes HEADER for its value types, and appends them to SOURCES.
# moc runs on the result through AUTOMOC.
function(ulmo_add_dbus_proxy sources description class header)
    get_filename_component(description "${description}" ABSOLUTE)
    set(base "${CMAKE_CURRENT_BINARY_DIR}/${class}")
    add_custom_command(
        OUTPUT "${base}.h" "${base}.cpp"
        COMMAND ${ulmo_qdbusxml2cpp} -c ${class} -i ${header} -p "${class}.h:${class}.cpp"
                "${description}"
        WORKING_DIRECTORY "${CMAKE_CURRENT_BINARY_DIR}"
        DEPENDS "${description}"
        COMMENT "Generating the proxy ${class}"
        VERBATIM)
    set(${sources} ${${sources}} "${base}.h" "${base}.cpp" PARENT_SCOPE)
endfunction()
