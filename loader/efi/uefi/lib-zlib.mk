# zlib for the image, from Debian's zlib source package: raw deflate and
# inflate, CRC-32 and uncompress; the gz* file functions are left out (they
# need a file system of the C library's).

EFI_ZLIB_SOURCE := $(BUILD)/third_party/zlib
EFI_ZLIB_FILES := adler32.c compress.c crc32.c deflate.c inffast.c inflate.c inftrees.c trees.c \
  uncompr.c zutil.c
EFI_ZLIB_OBJECTS := $(patsubst %.c,$(EFI_DIR)/zlib/%.o,$(EFI_ZLIB_FILES))
EFI_ZLIB_LIB := $(EFI_DIR)/zlib/libz.a

EFI_EXTRA_LIBS += $(EFI_ZLIB_LIB)
# Its own zlib.h, not the host's, so that header and code always match.
EFI_EXTRA_CPPFLAGS += -isystem $(EFI_ZLIB_SOURCE)
EFI_SOURCE_PREREQS += $(EFI_ZLIB_SOURCE)/.fetched

$(EFI_ZLIB_SOURCE)/.fetched:
	@bash scripts/fetch-source.sh zlib $(EFI_ZLIB_SOURCE)

$(EFI_DIR)/zlib/%.o: $(EFI_ZLIB_SOURCE)/.fetched $(EFI_MAKEFILES)
	@mkdir -p $(@D)
	@gcc $(EFI_LIB_CFLAGS) -c $(EFI_ZLIB_SOURCE)/$*.c -o $@

$(EFI_ZLIB_LIB): $(EFI_ZLIB_OBJECTS)
	@echo "efi: zlib"
	@rm -f $@
	@ar rcs $@ $^
