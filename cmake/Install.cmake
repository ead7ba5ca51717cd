# Installation and the Debian package.
#
# `cmake --install <build> --prefix P` lays the program out as a package manager would:
#   P/bin/quillet-capture
#   P/lib/quillet-capture/libquillet-taglib.so   (Linux; found from the program's own folder)
#   P/share/man/man1/quillet-capture.1
#   P/share/bash-completion/completions/quillet-capture
#   P/share/zsh/site-functions/_quillet-capture
#   P/share/fish/vendor_completions.d/quillet-capture.fish
#   P/share/doc/quillet-capture/copyright            (Linux: the licence, where Debian keeps it)
# `cpack -G DEB` in a build folder makes a Debian package of the same tree under /usr.
include(GNUInstallDirs)

install(TARGETS quillet-capture RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
if(NOT APPLE)
  # A module of the program, not a library for others: kept out of the library path, in a
  # folder the program finds as ../lib/quillet-capture from its own (AudioDurationLinux.cpp).
  # The same folder on every distribution, whatever its multiarch library folder is called.
  install(TARGETS quillet-taglib LIBRARY DESTINATION lib/quillet-capture)
endif()
install(FILES ${CMAKE_SOURCE_DIR}/man/quillet-capture.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
install(FILES ${CMAKE_SOURCE_DIR}/completions/quillet-capture.bash
        DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME quillet-capture)
install(FILES ${CMAKE_SOURCE_DIR}/completions/_quillet-capture
        DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/site-functions)
install(FILES ${CMAKE_SOURCE_DIR}/completions/quillet-capture.fish
        DESTINATION ${CMAKE_INSTALL_DATADIR}/fish/vendor_completions.d)
if(NOT APPLE)
  # Homebrew finds LICENSE in the source tree itself; a Debian package names its licence here.
  install(FILES ${CMAKE_SOURCE_DIR}/LICENSE DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/quillet-capture
          RENAME copyright)
endif()

# tests/e2e/InstalledProgramTest.cpp installs this build into a scratch prefix and runs it there.
if(TARGET quillet_tests)
  target_compile_definitions(quillet_tests PRIVATE
    QUILLET_CMAKE_COMMAND="${CMAKE_COMMAND}"
    QUILLET_BUILD_DIR="${CMAKE_BINARY_DIR}"
    QUILLET_PROJECT_VERSION="${PROJECT_VERSION}")
endif()

set(QUILLET_PACKAGE_MAINTAINER "quillet-capture maintainers <quillet-capture@users.noreply.github.com>"
    CACHE STRING "the Maintainer field of the Debian package")

set(CPACK_PACKAGE_NAME quillet-capture)
set(CPACK_PACKAGE_VENDOR Quillet)
set(CPACK_PACKAGE_CONTACT "${QUILLET_PACKAGE_MAINTAINER}")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "headless capture agent for Quillet voice notes")
set(CPACK_PACKAGE_DESCRIPTION
    "quillet-capture watches the folders where voice recordings appear, copies each new
recording into a notes folder (the vault) with a Markdown note, sends the audio to the
Veldane transcription service and writes the transcript into the note once it exists.
Every recording is captured exactly once, across restarts and crashes.
.
The background agent runs as a systemd user service that the program's own install
command writes for the user who runs it.")
set(CPACK_PACKAGE_HOMEPAGE_URL "https://github.com/quillet/quillet-capture")
set(CPACK_PACKAGE_INSTALL_DIRECTORY quillet-capture)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_GENERATOR DEB)

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
# Depends of the linked libraries (the C++ runtime, libuuid, simdjson) and of the TagLib
# module (TagLib) come from dpkg-shlibdeps. libcurl and libsecret are opened at run time
# (platform/LazyLibrary.hpp), so no tool can see them: they are named here, from the oldest
# versions that have every function and option the program uses (curl_url and
# CURLOPT_UPLOAD_BUFFERSIZE, secret_password_lookupv_binary_sync). The program loads either
# flavour of libcurl. GIO, opened for desktop notifications, comes with libsecret's GLib.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_DEPENDS "libcurl4 (>= 7.62) | libcurl3-gnutls (>= 7.62), libsecret-1-0 (>= 0.19)")
# `install` starts the agent with systemctl --user; `pair` opens the sign-in page with
# xdg-open (and prints it too); a Secret Service keeps the token (a 0600 file otherwise).
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "systemd")
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "xdg-utils, gnome-keyring")
include(CPack)
