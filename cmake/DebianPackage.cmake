# The Debian package for the server that pg_config belongs to: `cpack -G DEB` in the build folder, which
# scripts/package.sh calls with Debian's compiler flags.
string(REGEX REPLACE "^[^0-9]*([0-9]+).*" "\\1" pg_major "${PG_VERSION}")
set(package postgresql-${pg_major}-veltranepgfdw)
set(package_revision 1)
set(package_maintainer "VeltranePgFdw maintainers <maintainers@veltranepgfdw.example>")
set(package_doc_dir /usr/share/doc/${package})

# Only the package has the documents: `cmake --install` serves the server's directories and no others.
configure_file(cmake/debian/changelog.in ${PROJECT_BINARY_DIR}/debian/changelog.Debian @ONLY)
configure_file(CHANGELOG.md ${PROJECT_BINARY_DIR}/debian/changelog COPYONLY)
install(FILES cmake/debian/copyright README.md CONTRIBUTING.md
    ${PROJECT_BINARY_DIR}/debian/changelog ${PROJECT_BINARY_DIR}/debian/changelog.Debian
    DESTINATION ${package_doc_dir} COMPONENT documents EXCLUDE_FROM_ALL)
install(DIRECTORY docs DESTINATION ${package_doc_dir} COMPONENT documents EXCLUDE_FROM_ALL)
# -n: the compressed files depend on their contents alone.
install(CODE "
    execute_process(COMMAND gzip -9 -n changelog changelog.Debian
        WORKING_DIRECTORY \"\$ENV{DESTDIR}${package_doc_dir}\" RESULT_VARIABLE failed)
    if(failed)
        message(FATAL_ERROR \"gzip failed: \${failed}\")
    endif()"
    COMPONENT documents EXCLUDE_FROM_ALL)

set(CPACK_GENERATOR DEB)
set(CPACK_INSTALL_CMAKE_PROJECTS "${PROJECT_BINARY_DIR};${PROJECT_NAME};ALL;/"
    "${PROJECT_BINARY_DIR};${PROJECT_NAME};documents;/")
# The server's directories are absolute: they go below a staging directory, not below a prefix.
set(CPACK_SET_DESTDIR ON)
set(CPACK_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_NAME ${package})
set(CPACK_DEBIAN_PACKAGE_RELEASE ${package_revision})
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "${package_maintainer}")
set(CPACK_DEBIAN_PACKAGE_SECTION database)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_DEPENDS postgresql-${pg_major})
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# Without the system's authorities no certificate is trusted, unless the option cafile brings some.
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS ca-certificates)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION "Elasticsearch documents as PostgreSQL rows
A foreign-data wrapper for PostgreSQL ${pg_major}: a SELECT on a foreign table searches
an Elasticsearch cluster and returns the documents it finds as rows, with
their scores and highlights. Results of any size are read page by page.
.
CREATE EXTENSION veltranepgfdw makes the wrapper in a database.")
include(CPack)
