# OpenSSL's libcrypto for the image: the digest and signature calls of
# signature checking.  Built from Debian's openssl source package (fetched
# once by scripts/fetch-source.sh) for the library's own UEFI target, with
# everything the loader does not use left out and the image's code
# generation flags.  Only libcrypto.a is made.

EFI_OPENSSL_SRC := $(BUILD)/third_party/openssl
EFI_OPENSSL_DIR := $(EFI_DIR)/openssl
EFI_OPENSSL_BUILD := $(EFI_OPENSSL_DIR)/build
EFI_OPENSSL_LIB := $(EFI_OPENSSL_BUILD)/libcrypto.a
EFI_OPENSSL_PRELUDE := $(EFI_RUNTIME_DIR)/openssl_prelude.h

# The UEFI target leaves the bignum word size open: 64-bit longs here, and
# every file that includes OpenSSL's headers must agree.
EFI_OPENSSL_CPPFLAGS := -DSIXTY_FOUR_BIT_LONG
# Small rather than fast: the loader checks a few files once per boot.
EFI_OPENSSL_CFLAGS = $(EFI_LIB_CFLAGS) -Os -ffreestanding $(EFI_OPENSSL_CPPFLAGS) \
  -include $(abspath $(EFI_OPENSSL_PRELUDE))
# No threads, files, sockets, modules or entropy sources (verification needs
# no randomness), and no algorithm or protocol the loader does not use.  The
# long-standing key calls stay available: no "no-deprecated".
EFI_OPENSSL_OPTIONS := no-asm no-shared no-threads no-sock no-dso no-ui-console no-stdio \
  no-engine no-async no-autoload-config --with-rand-seed=none no-module no-legacy \
  no-posix-io no-filenames no-tests no-err no-ssl no-tls no-dtls no-ssl-trace no-dgram \
  no-ktls no-srtp no-psk no-srp no-comp no-ec no-ec2m no-dh no-sm2 no-sm3 no-sm4 no-gost \
  no-idea no-rc2 no-rc4 no-rc5 no-md4 no-mdc2 no-rmd160 no-whirlpool no-aria no-bf \
  no-camellia no-cast no-seed no-des no-chacha no-poly1305 no-siphash no-siv no-blake2 \
  no-scrypt no-ocb no-cmac no-cms no-ts no-ocsp no-ct no-cmp no-rfc3779 no-fips \
  no-padlockeng no-capieng no-afalgeng no-dynamic-engine no-uplink --prefix=/nonexistent

EFI_EXTRA_LIBS += $(EFI_OPENSSL_LIB)
# Its own headers, never the host's: configured ones first, then the
# source's.  Our files get the UEFI target's integer type names with them.
EFI_EXTRA_CPPFLAGS += -isystem $(EFI_OPENSSL_BUILD)/include -isystem $(EFI_OPENSSL_SRC)/include \
  $(EFI_OPENSSL_CPPFLAGS) -include $(EFI_OPENSSL_PRELUDE)
EFI_SOURCE_PREREQS += $(EFI_OPENSSL_BUILD)/.generated

# The configuration is redone when the flags change, and only then: the
# stamp is rewritten when its text differs.
EFI_OPENSSL_STAMP := $(EFI_OPENSSL_DIR)/configuration
EFI_OPENSSL_CONFIG_TEXT = $(EFI_OPENSSL_OPTIONS) CFLAGS=$(EFI_OPENSSL_CFLAGS)
$(shell mkdir -p $(EFI_OPENSSL_DIR) && echo '$(EFI_OPENSSL_CONFIG_TEXT)' | cmp -s - $(EFI_OPENSSL_STAMP) || \
  echo '$(EFI_OPENSSL_CONFIG_TEXT)' >$(EFI_OPENSSL_STAMP))

$(EFI_OPENSSL_SRC)/.fetched:
	@bash scripts/fetch-source.sh openssl $(EFI_OPENSSL_SRC)

$(EFI_OPENSSL_BUILD)/Makefile: $(EFI_OPENSSL_SRC)/.fetched $(EFI_OPENSSL_STAMP) $(EFI_OPENSSL_PRELUDE)
	@echo "efi: configuring libcrypto"
	@rm -rf $(EFI_OPENSSL_BUILD) && mkdir -p $(EFI_OPENSSL_BUILD)
	@cd $(EFI_OPENSSL_BUILD) && perl $(abspath $(EFI_OPENSSL_SRC))/Configure UEFI-x86_64 \
	  $(EFI_OPENSSL_OPTIONS) CC=gcc CFLAGS="$(EFI_OPENSSL_CFLAGS)" >configure.log 2>&1 || \
	  { cat configure.log; exit 1; }

# OpenSSL's own make runs with its own options, not the image build's.
EFI_OPENSSL_MAKE = cd $(EFI_OPENSSL_BUILD) && env -u MAKEFLAGS -u MFLAGS -u MAKELEVEL $(MAKE) -j$(JOBS)

$(EFI_OPENSSL_BUILD)/.generated: $(EFI_OPENSSL_BUILD)/Makefile
	@$(EFI_OPENSSL_MAKE) build_generated >build.log 2>&1 || { tail -n 40 build.log; exit 1; }
	@touch $@

$(EFI_OPENSSL_LIB): $(EFI_OPENSSL_BUILD)/.generated
	@echo "efi: building libcrypto (a few minutes, once)"
	@$(EFI_OPENSSL_MAKE) libcrypto.a >>build.log 2>&1 || { tail -n 40 build.log; exit 1; }
	@touch $@
