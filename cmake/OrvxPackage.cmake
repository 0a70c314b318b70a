# cpack reads this first. Without dpkg-shlibdeps it would make packages that name no dependencies.
foreach(program dpkg-shlibdeps file)
  find_program(path_of_${program} ${program})
  if(NOT path_of_${program})
    message(FATAL_ERROR "${program} is missing: scripts/prepare package installs it")
  endif()
endforeach()
