# The firmware image: build/loader.efi, a PE32+ EFI application for x86-64.
#
# Included by the top Makefile; also usable on its own:
#   make -f loader/efi/efi.mk efi
# Everything under core/ and loader/ is compiled (less host_only/ folders),
# with the runtime of loader/efi/uefi, and linked with gnu-efi, libsupc++ and
# libgcc into a position-independent ELF object that objcopy turns into PE.
#
# Third-party C libraries compiled for this target: each has a fragment
# loader/efi/uefi/lib-NAME.mk, included below before the link rules.  A fragment
# appends its archive to EFI_EXTRA_LIBS, its include folders and defines
# to EFI_EXTRA_CPPFLAGS, and what must exist before any of our files is
# compiled (its unpacked headers) to EFI_SOURCE_PREREQS; it has the rules
# that build the archive under $(EFI_DIR)/NAME/ with $(EFI_LIB_CFLAGS).

BUILD ?= build
JOBS ?= $(shell nproc)
SHELL := /bin/bash

EFI_DIR := $(BUILD)/efi
EFI_IMAGE := $(BUILD)/loader.efi
EFI_SO := $(EFI_DIR)/loader.so
EFI_RUNTIME_DIR := loader/efi/uefi
EFI_EXTRA_LIBS ?=
EFI_EXTRA_CPPFLAGS ?=
EFI_SOURCE_PREREQS ?=

GNU_EFI_INC := /usr/include/efi
GNU_EFI_LIB := /usr/lib
GCC_LIB_DIR := $(shell gcc -print-file-name=)
GCC_LIB_DIR := $(GCC_LIB_DIR:%/=%)

# ---- sources ---------------------------------------------------------------

EFI_SHARED_SOURCES := $(shell find core loader -name '*.cpp' -not -path '*/host_only/*' \
                        -not -path '$(EFI_RUNTIME_DIR)/*' 2>/dev/null | LC_ALL=C sort)
EFI_RUNTIME_SOURCES := $(wildcard $(EFI_RUNTIME_DIR)/*.cpp $(EFI_RUNTIME_DIR)/*.c $(EFI_RUNTIME_DIR)/*.S)
EFI_OBJECTS := $(patsubst %,$(EFI_DIR)/obj/%.o,$(EFI_SHARED_SOURCES) $(EFI_RUNTIME_SOURCES))

# A second image checks the runtime on the real firmware: the runtime
# without the loader's main(), and the checks' own main().
EFI_MAIN_SOURCE := $(EFI_RUNTIME_DIR)/efi_entry.cpp
EFI_CHECK_SOURCES := tests/e2e/runtime/runtime_check.cpp
EFI_CHECK_OBJECTS := $(patsubst %,$(EFI_DIR)/obj/%.o,\
  $(filter-out $(EFI_MAIN_SOURCE),$(EFI_RUNTIME_SOURCES)) $(EFI_CHECK_SOURCES))
EFI_CHECK_IMAGE := $(EFI_DIR)/runtime-check.efi

# ---- flags -----------------------------------------------------------------

# The firmware's interrupt handlers use the current stack, so no red zone;
# there is no TLS for a stack guard; gnu-efi's headers want wchar_t to be
# the firmware's 16-bit CHAR16.
EFI_TARGET_FLAGS := -fpic -mno-red-zone -maccumulate-outgoing-args -fno-stack-protector \
  -fshort-wchar -fno-strict-aliasing -ffunction-sections -fdata-sections -fvisibility=hidden
EFI_WARN_FLAGS := -Wall -Wextra -Wno-unused-parameter
EFI_OPT_FLAGS ?= -O2
EFI_CPPFLAGS = -DLOADER_EFI=1 -DGNU_EFI_USE_MS_ABI \
  -I$(GNU_EFI_INC) -I$(GNU_EFI_INC)/x86_64 -I$(GNU_EFI_INC)/protocol \
  -Icore/include -Icore -Iloader \
  -include $(EFI_RUNTIME_DIR)/prelude.h \
  -fmacro-prefix-map=$(CURDIR)/= $(EFI_EXTRA_CPPFLAGS)
EFI_CXXFLAGS := -std=c++20 -fexceptions -frtti -fno-threadsafe-statics
EFI_CFLAGS := -std=gnu11
# The runtime defines memcpy and friends: keep the compiler from turning
# their loops back into calls to them.
EFI_RUNTIME_FLAGS := -fno-builtin -fno-tree-loop-distribute-patterns

EFI_COMMON_FLAGS = $(EFI_TARGET_FLAGS) $(EFI_OPT_FLAGS) $(EFI_WARN_FLAGS) $(EFI_CPPFLAGS) \
  $(if $(filter $(EFI_RUNTIME_DIR)/%,$<),$(EFI_RUNTIME_FLAGS)) -MMD -MP
# For third-party C code: the target's code generation, no warnings of ours.
EFI_LIB_CFLAGS = $(EFI_TARGET_FLAGS) $(EFI_OPT_FLAGS) $(EFI_CFLAGS) -DLOADER_EFI=1 -w

# Objects are rebuilt when the flags change.
EFI_MAKEFILES := loader/efi/efi.mk $(wildcard $(EFI_RUNTIME_DIR)/lib-*.mk)
-include $(wildcard $(EFI_RUNTIME_DIR)/lib-*.mk)

# ---- libraries -------------------------------------------------------------

# gnu-efi's library brings byte-at-a-time memcpy and memset in the same
# object as InitializeLib; a copy with those two made weak lets ours win.
EFI_LIBEFI := $(EFI_DIR)/libefi.a
# Out-of-line red-black tree code that std::map and std::set need, taken
# from Debian's libstdc++.a only after a scan: no red zone, and nothing
# that could need a run-time fix-up.
EFI_LIBSTDCXX_OBJECTS := tree.o
EFI_LIBSTDCXX_PICK := $(EFI_DIR)/libstdcxx-pick.a

EFI_LIBS = $(EFI_EXTRA_LIBS) $(EFI_LIBEFI) $(GNU_EFI_LIB)/libgnuefi.a $(EFI_LIBSTDCXX_PICK) \
  $(GCC_LIB_DIR)/libsupc++.a $(GCC_LIB_DIR)/libgcc_eh.a $(GCC_LIB_DIR)/libgcc.a

# ---- rules -----------------------------------------------------------------

.PHONY: efi efi-image

# The top Makefile runs targets one at a time unless given -j; the image
# build has many small files, so it runs its own parallel make then.
efi:
	@$(MAKE) --no-print-directory -f loader/efi/efi.mk \
	  $(if $(findstring jobserver,$(MAKEFLAGS)),,-j$(JOBS)) BUILD=$(BUILD) efi-image

efi-image: $(EFI_IMAGE) $(EFI_CHECK_IMAGE)

$(EFI_DIR)/obj/%.cpp.o: %.cpp $(EFI_MAKEFILES) | $(EFI_SOURCE_PREREQS)
	@mkdir -p $(@D)
	@echo "efi: $<"
	@g++ $(EFI_COMMON_FLAGS) $(EFI_CXXFLAGS) -c $< -o $@

$(EFI_DIR)/obj/%.c.o: %.c $(EFI_MAKEFILES) | $(EFI_SOURCE_PREREQS)
	@mkdir -p $(@D)
	@echo "efi: $<"
	@gcc $(EFI_COMMON_FLAGS) $(EFI_CFLAGS) -c $< -o $@

$(EFI_DIR)/obj/%.S.o: %.S $(EFI_MAKEFILES)
	@mkdir -p $(@D)
	@echo "efi: $<"
	@gcc $(EFI_TARGET_FLAGS) -MMD -MP -c $< -o $@

$(EFI_LIBEFI): $(GNU_EFI_LIB)/libefi.a loader/efi/efi.mk
	@mkdir -p $(@D)
	@objcopy --weaken-symbol=memcpy --weaken-symbol=memset $< $@

$(EFI_LIBSTDCXX_PICK): $(GCC_LIB_DIR)/libstdc++.a $(EFI_RUNTIME_DIR)/check_image.py loader/efi/efi.mk
	@rm -rf $(EFI_DIR)/libstdcxx $@
	@mkdir -p $(EFI_DIR)/libstdcxx
	@cd $(EFI_DIR)/libstdcxx && ar x $(abspath $<) $(EFI_LIBSTDCXX_OBJECTS)
	@python3 $(EFI_RUNTIME_DIR)/check_image.py pick $(addprefix $(EFI_DIR)/libstdcxx/,$(EFI_LIBSTDCXX_OBJECTS))
	@ar rcs $@ $(addprefix $(EFI_DIR)/libstdcxx/,$(EFI_LIBSTDCXX_OBJECTS))

EFI_LINK_INPUTS := $(EFI_LIBS) $(EFI_RUNTIME_DIR)/efi.lds $(EFI_RUNTIME_DIR)/image.ver \
  $(EFI_RUNTIME_DIR)/check_image.py

# $(call efi_link,OBJECTS): links $@, checked before it exists under its
# name, so that a failed check leaves nothing behind.
define efi_link
	@echo "efi: linking $@"
	@ld -nostdlib -znocombreloc -T $(EFI_RUNTIME_DIR)/efi.lds -shared -Bsymbolic --no-undefined \
	  --gc-sections --version-script=$(EFI_RUNTIME_DIR)/image.ver -o $@.tmp \
	  $(1) --start-group $(EFI_LIBS) --end-group
	@python3 $(EFI_RUNTIME_DIR)/check_image.py image $@.tmp
	@python3 $(EFI_RUNTIME_DIR)/check_image.py redzone $@.tmp
	@mv $@.tmp $@
endef

# ELF to PE32+, EFI application.
define efi_convert
	@objcopy -j .text -j .sdata -j .data -j .dynamic -j .dynsym -j .rel -j .rela -j '.rel.*' \
	  -j '.rela.*' -j .reloc -j .eh_frame --target efi-app-x86_64 --subsystem=10 $< $@.tmp
	@mv $@.tmp $@
	@echo "efi: $@ ($$(stat -c %s $@) bytes)"
endef

$(EFI_SO): $(EFI_OBJECTS) $(EFI_LINK_INPUTS)
	$(call efi_link,$(EFI_OBJECTS))

$(EFI_IMAGE): $(EFI_SO)
	$(efi_convert)

$(EFI_DIR)/runtime-check.so: $(EFI_CHECK_OBJECTS) $(EFI_LINK_INPUTS)
	$(call efi_link,$(EFI_CHECK_OBJECTS))

$(EFI_CHECK_IMAGE): $(EFI_DIR)/runtime-check.so
	$(efi_convert)

-include $(EFI_OBJECTS:.o=.d) $(EFI_CHECK_OBJECTS:.o=.d)
