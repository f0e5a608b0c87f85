# Run by cpack: its folders are made with the umask of whoever builds the package, which is for everybody.
file(CHMOD_RECURSE ${CPACK_TEMPORARY_DIRECTORY} DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
