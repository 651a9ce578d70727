# Installation of the desktop pieces and the Debian package CPack makes from everything installed.
if(QM_LIBRARY_ONLY)
    return()
endif()

add_subdirectory("${PROJECT_SOURCE_DIR}/data" "${PROJECT_BINARY_DIR}/data")

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME quillmoor)
set(CPACK_PACKAGE_VERSION "${PROJECT_VERSION}")
set(CPACK_PACKAGE_VENDOR "Quillmoor")
set(CPACK_PACKAGE_CONTACT "Quillmoor <packages@quillmoor.app>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Meeting recorder with transcripts")
set(CPACK_PACKAGE_HOMEPAGE_URL "https://quillmoor.app")
# The packaged prefix is fixed whatever the build tree was configured with, so a package made from any tree
# puts the program where the desktop entry's TryExec finds it on PATH.
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION sound)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
# CPack puts the summary above this as the synopsis line.
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION [=[
Quillmoor lives in the system tray and records a Zoom meeting, any other
online meeting heard through the computer, or a meeting in the room through
the microphone, optionally with the screen. Every recording gets a
transcript with speakers, made on this computer or by a cloud service.]=])
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# What no library link shows. The player's GStreamer backend needs the demuxer, parsers and the sound server
# sink (plugins-good) and the AAC and H.264 decoders (libav); Qt finds its platform and SVG icon plugins
# at run time.
set(CPACK_DEBIAN_PACKAGE_DEPENDS
    "gstreamer1.0-plugins-base, gstreamer1.0-plugins-good, gstreamer1.0-libav, libqt6svg6, qt6-qpa-plugins")
# The prompt's sound comes from the freedesktop theme; GNOME shows tray icons only with the AppIndicator extension.
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "sound-theme-freedesktop")
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "gnome-shell-extension-appindicator")

include(CPack)
