# Finds the chosen Qt and says what is built with it: VD_QT_CORE and VD_QT_NETWORK are its targets.

if(NOT VD_QT_MAJOR MATCHES "^[456]$")
    message(FATAL_ERROR "VD_QT_MAJOR is \"${VD_QT_MAJOR}\"; set it to 6, 5 or 4.")
endif()

if(VD_QT_MAJOR EQUAL 6)
    find_package(Qt6 6.4 REQUIRED COMPONENTS Core Network)
elseif(VD_QT_MAJOR EQUAL 5)
    find_package(Qt5 5.15 REQUIRED COMPONENTS Core Network)
else()
    find_package(Qt4 4.8 REQUIRED COMPONENTS QtCore QtNetwork)
endif()

if(VD_QT_MAJOR EQUAL 4)
    set(VD_QT_CORE Qt4::QtCore)
    set(VD_QT_NETWORK Qt4::QtNetwork)
else()
    set(VD_QT_CORE Qt${VD_QT_MAJOR}::Core)
    set(VD_QT_NETWORK Qt${VD_QT_MAJOR}::Network)
endif()

# Qt 6 needs C++17; with the older ones the library is kept to what their users compile with.
if(VD_QT_MAJOR EQUAL 6)
    set(VD_LIBRARY_CXX_STANDARD 17)
else()
    set(VD_LIBRARY_CXX_STANDARD 11)
endif()
