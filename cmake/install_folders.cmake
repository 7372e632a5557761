# Everybody can read what an installation makes, whatever the umask. CMake sees to files; folders that it creates get
# what the umask allows, so they are created here first. Existing ones stay as they are.
include(GNUInstallDirs)

# install_folders([COMPONENT NAME] FOLDER...): below the prefix, or absolute. To be called before what is installed
# there. Sets ${settings} in the script of the installation: the folder of the settings, which SETTINGS stands for.
function(install_folders)
  cmake_parse_arguments(PARSE_ARGV 0 wanted "" COMPONENT "")
  set(component)
  if(wanted_COMPONENT)
    set(component COMPONENT ${wanted_COMPONENT} EXCLUDE_FROM_ALL)
  endif()
  install(CODE "set(folders ${wanted_UNPARSED_ARGUMENTS})" ${component})
  install(CODE [[
  function(make_folder path)
    if(path STREQUAL "" OR EXISTS "${path}")
      return()
    endif()
    cmake_path(GET path PARENT_PATH parent)
    make_folder("${parent}")
    file(MAKE_DIRECTORY "${path}")
    file(CHMOD "${path}" PERMISSIONS
      OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
  endfunction()

  cmake_path(ABSOLUTE_PATH CMAKE_INSTALL_PREFIX NORMALIZE)
  # Below the prefix /usr the settings go to /etc.
  set(settings "${CMAKE_INSTALL_PREFIX}/etc")
  if(CMAKE_INSTALL_PREFIX STREQUAL "/usr")
    set(settings /etc)
  endif()
  foreach(folder IN LISTS folders)
    string(REPLACE SETTINGS "${settings}" folder "${folder}")
    cmake_path(ABSOLUTE_PATH folder BASE_DIRECTORY "${CMAKE_INSTALL_PREFIX}")
    make_folder("$ENV{DESTDIR}${folder}")
  endforeach()
]] ${component})
endfunction()
