# Stands in for the build root's rules.mk.
INCLUDE_DIR:=$(TOPDIR)/include
INSTALL_BIN:=install -m0755
INSTALL_DATA:=install -m0644
INSTALL_CONF:=install -m0600
INSTALL_DIR:=install -d -m0755
