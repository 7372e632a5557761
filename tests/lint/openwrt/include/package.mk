# Stands in for the build root's package.mk: shows what the package says of itself, and installs it into $(ROOT).
known_flags:=no-iremap no-mips16 gc-sections no-gc-sections lto no-lto no-mold
unknown_flags:=$(filter-out $(known_flags),$(PKG_BUILD_FLAGS))
$(if $(unknown_flags),$(error unknown PKG_BUILD_FLAGS: $(unknown_flags)))

package_settings:=PKG_NAME PKG_VERSION PKG_RELEASE PKG_SOURCE PKG_SOURCE_URL PKG_HASH PKG_MAINTAINER PKG_LICENSE \
	PKG_LICENSE_FILES PKG_BUILD_FLAGS PKG_CONFIG_DEPENDS PKG_INSTALL SECTION CATEGORY SUBMENU TITLE URL DEPENDS CMAKE_OPTIONS

define BuildPackage
  $(eval $(call Package/$(1)))
  $(foreach setting,$(package_settings),$(info $(setting)=$($(setting))))
  $(info $(Package/$(1)/description))
  $(info $(Package/$(1)/config))
  $(foreach file,$(Package/$(1)/conffiles),$(info conffile=$(file)))
install:
	$(call Package/$(1)/install,$(ROOT))
endef
