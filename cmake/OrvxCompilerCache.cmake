# Compiles through ccache where it is installed, so that a clone in another folder of this machine finds
# the objects of the first one: paths below the sources count from there.
find_program(ORVX_CCACHE ccache)
mark_as_advanced(ORVX_CCACHE)
if(ORVX_TOP_LEVEL AND ORVX_CCACHE AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
  set(CMAKE_CXX_COMPILER_LAUNCHER env
    CCACHE_BASEDIR=${PROJECT_SOURCE_DIR}
    CCACHE_DEPEND=true # an object that is not found is not preprocessed twice
    CCACHE_NOHASHDIR=true
    CCACHE_SLOPPINESS=pch_defines,time_macros
    ${ORVX_CCACHE})
endif()
