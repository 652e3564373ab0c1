# The LZMA SDK's xz decoder for the image: the C folder of Debian's 7zip
# source package (unpacked into the same place the host build uses), the
# same files the host build compiles, single-threaded.

EFI_LZMA_SOURCE := $(BUILD)/third_party/7zip
EFI_LZMA_FILES := XzDec.c Xz.c XzCrc64.c XzCrc64Opt.c 7zCrc.c 7zCrcOpt.c Lzma2Dec.c LzmaDec.c \
  CpuArch.c Sha256.c Sha256Opt.c Bra.c Bra86.c BraIA64.c Delta.c Alloc.c
EFI_LZMA_OBJECTS := $(patsubst %.c,$(EFI_DIR)/lzma/%.o,$(EFI_LZMA_FILES))
EFI_LZMA_LIB := $(EFI_DIR)/lzma/liblzma-sdk.a

EFI_EXTRA_LIBS += $(EFI_LZMA_LIB)
EFI_EXTRA_CPPFLAGS += -DZ7_ST -isystem $(EFI_LZMA_SOURCE)/C
EFI_SOURCE_PREREQS += $(EFI_LZMA_SOURCE)/.fetched

$(EFI_LZMA_SOURCE)/.fetched:
	@bash scripts/fetch-source.sh 7zip $(EFI_LZMA_SOURCE)

$(EFI_DIR)/lzma/%.o: $(EFI_LZMA_SOURCE)/.fetched $(EFI_MAKEFILES)
	@mkdir -p $(@D)
	@gcc $(EFI_LIB_CFLAGS) -DZ7_ST -c $(EFI_LZMA_SOURCE)/C/$*.c -o $@

$(EFI_LZMA_LIB): $(EFI_LZMA_OBJECTS)
	@echo "efi: LZMA SDK"
	@rm -f $@
	@ar rcs $@ $^
