# Debian packages, made by CPack. What only Debian needs is installed here: documentation where its policy wants it,
# and links in /usr/sbin to the programs, so that they are in the PATH.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME nubo-set-config)
# A package is for one Debian release, whose libraries it needs. Its version tells which, so that an upgrade of Debian
# upgrades it: 1.1.0~deb12 < 1.1.0~deb13 < 1.1.0.
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION}~deb${NUBO_DEBIAN})
set(CPACK_PACKAGE_CONTACT "nubo_set_config authors <maintainers@nubo-set-config.invalid>")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION mail)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${PROJECT_DESCRIPTION}")
set(CPACK_PACKAGE_DESCRIPTION "Turns the administrator's settings into the files that Postfix, Dovecot,
MailScanner, SpamAssassin, OpenDKIM and OpenDMARC read. One run regenerates a
group of these files whole and replaces each in one step.

nubo_config_preview shows beforehand what a run would change, and what the
daemons would say of it; nubo_config_apply has the daemons follow, checks mail,
and puts everything back when it is worse than before.")

# It depends on what it calls, except net(8) of samba-common-bin, which only Windows domains need. It recommends the
# daemons that read the files: the administrator chooses which of them run here.
if(CMAKE_CROSSCOMPILING)
  set(CPACK_DEBIAN_PACKAGE_DEPENDS "$ENV{PACKAGE_DEPENDS}")  # dpkg-shlibdeps(1) knows the installed libraries alone
else()
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
  set(CPACK_DEBIAN_PACKAGE_DEPENDS "postfix, openssl, iproute2")
endif()
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "postfix-ldap, libsasl2-modules, dovecot-imapd, dovecot-pop3d, opendkim, \
opendmarc, publicsuffix, spamassassin, postfix-policyd-spf-perl")
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "samba-common-bin, winbind, libnss-winbind, libpam-winbind, libpam-ldapd, memcached, \
clamav-daemon")

get_property(conffiles GLOBAL PROPERTY CONFFILES)
file(WRITE ${PROJECT_BINARY_DIR}/conffiles "${conffiles}")
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
  ${PROJECT_BINARY_DIR}/conffiles
  ${PROJECT_SOURCE_DIR}/packaging/postinst
  ${PROJECT_SOURCE_DIR}/packaging/prerm
  ${PROJECT_SOURCE_DIR}/packaging/postrm
  ${PROJECT_SOURCE_DIR}/packaging/triggers)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_SET_DESTDIR ON)  # all destinations are absolute
set(CPACK_INSTALL_PREFIX /)
set(CPACK_STRIP_FILES ON)
include(CPack)

set(DOC /usr/share/doc/${CPACK_PACKAGE_NAME})
install(FILES LICENSE DESTINATION ${DOC} RENAME copyright)
file(GLOB pages CONFIGURE_DEPENDS docs/*.md)
install(FILES SECURITY.md ${pages} DESTINATION ${DOC})
foreach(file changelog NEWS)
  configure_file(packaging/${file} ${PROJECT_BINARY_DIR}/packaging/${file} @ONLY)
endforeach()
install(FILES ${PROJECT_BINARY_DIR}/packaging/changelog DESTINATION ${DOC})
install(FILES ${PROJECT_BINARY_DIR}/packaging/NEWS DESTINATION ${DOC} RENAME NEWS.Debian)
install(FILES packaging/lintian-overrides DESTINATION /usr/share/lintian/overrides RENAME ${CPACK_PACKAGE_NAME})
install(CODE "
  set(root \"\$ENV{DESTDIR}\")
  set(man \${root}/usr/share/man)
  execute_process(COMMAND gzip -9nf \${root}${DOC}/changelog \${root}${DOC}/NEWS.Debian \${man}/man5/brindlecot-settings.5
    \${man}/man8/nubo_config_apply.8
    \${man}/man8/nubo_config_preview.8 \${man}/man8/nubo_set_config.8 COMMAND_ERROR_IS_FATAL ANY)
  file(MAKE_DIRECTORY \${root}/usr/sbin)
  foreach(program nubo_set_config nubo_config_preview nubo_config_apply)
    file(CREATE_LINK ${PACKAGE_TARGET}/bin/\${program} \${root}/usr/sbin/\${program} SYMBOLIC)
  endforeach()")
