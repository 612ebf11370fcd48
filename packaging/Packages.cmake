# The Debian packages: "zarnu" (the client side) and "zarnu-cloud" (the service).
# Run-time dependencies on shared libraries come from dpkg-shlibdeps, so that
# `apt-get install ./zarnu_<version>_<arch>.deb` on a fresh Debian 12 pulls them in.

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME zarnu)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_VENDOR "Zarnu")
set(CPACK_PACKAGE_CONTACT "Zarnu developers <developers@zarnu.example.org>")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES TRUE)
set(CPACK_OUTPUT_FILE_PREFIX ${CMAKE_BINARY_DIR}/packages)
set(CPACK_COMPONENTS_ALL client cloud)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# Where dpkg-shlibdeps finds the libraries the package itself ships.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_BINARY_DIR}/lib)
set(CPACK_DEBIAN_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_HOMEPAGE "https://zarnu.example.org/")

set(CPACK_DEBIAN_CLIENT_PACKAGE_NAME zarnu)
set(CPACK_COMPONENT_CLIENT_DESCRIPTION "cloud-sync agent and its command line
Zarnu keeps a folder of yours and your Zarnu cloud account the same, both
ways. This package holds the agent ZarnuAgent (run for your user by the
systemd user unit zarnu-agent.service), the command line zarnucmd that works
on the cloud's files and drives the agent, the read-only cloud mount, the
manual pages and the bash completion.")
set(CPACK_DEBIAN_CLIENT_PACKAGE_RECOMMENDS "ca-certificates, fuse3")
set(CPACK_DEBIAN_CLIENT_PACKAGE_SUGGESTS "python3-nautilus, zarnu-cloud")

set(CPACK_DEBIAN_CLOUD_PACKAGE_NAME zarnu-cloud)
set(CPACK_COMPONENT_CLOUD_DESCRIPTION "Zarnu cloud service
zarnu-cloud serves Zarnu accounts over an HTTPS JSON API: their files and
folders, the parts file contents are made of, public links and build slots.
The package runs it as the system service zarnu-cloud.service under its own
user, with its state in /var/lib/zarnu-cloud.")
set(CPACK_DEBIAN_CLOUD_PACKAGE_DEPENDS "adduser")
set(CPACK_DEBIAN_CLOUD_PACKAGE_CONTROL_EXTRA
    ${CMAKE_CURRENT_SOURCE_DIR}/cloud/postinst ${CMAKE_CURRENT_SOURCE_DIR}/cloud/postrm)
set(CPACK_DEBIAN_CLOUD_PACKAGE_CONTROL_STRICT_PERMISSION TRUE)

include(CPack)
