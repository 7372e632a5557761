# Stands in for the build root's cmake.mk.
PKG_INSTALL:=1
