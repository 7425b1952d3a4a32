# Sourced by the scripts that build: the compiler cache serves every clone of the tree, wherever it lies.
export CCACHE_BASEDIR="$PWD"
export CCACHE_NOHASHDIR=1
export CCACHE_MAXSIZE=5G
