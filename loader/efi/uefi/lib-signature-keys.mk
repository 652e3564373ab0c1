# The public keys of signature checking, for the image: the same key files
# and the same generated definitions as the host build (see CMakeLists.txt),
# compiled into a small archive of their own.
#   make efi LOADER_KEY_FIRST=a.pem LOADER_KEY_SECOND=b.pem LOADER_KEY_DSA=c.pem
# Keys not given come from the development set in LOADER_DEV_KEY_DIR.

LOADER_DEV_KEY_DIR ?= $(BUILD)/dev-keys
LOADER_KEY_FIRST ?=
LOADER_KEY_SECOND ?=
LOADER_KEY_DSA ?=
KEYS_DIR := $(EFI_DIR)/signature-keys
KEYS_FILES := $(or $(LOADER_KEY_FIRST),$(LOADER_DEV_KEY_DIR)/first.pem) \
  $(or $(LOADER_KEY_SECOND),$(LOADER_DEV_KEY_DIR)/second.pem) \
  $(or $(LOADER_KEY_DSA),$(LOADER_DEV_KEY_DIR)/dsa.pem)
KEYS_LIB := $(KEYS_DIR)/libsignature-keys.a

EFI_EXTRA_LIBS += $(KEYS_LIB)

# Another choice of key files rebuilds the keys even when the files are old.
$(shell mkdir -p $(KEYS_DIR) && echo '$(KEYS_FILES)' | cmp -s - $(KEYS_DIR)/files || \
  echo '$(KEYS_FILES)' >$(KEYS_DIR)/files)

$(LOADER_DEV_KEY_DIR)/%.pem:
	@bash scripts/make-dev-keys.sh $(LOADER_DEV_KEY_DIR)

$(KEYS_DIR)/keys.cpp: $(KEYS_FILES) $(KEYS_DIR)/files scripts/embed-keys.sh
	@bash scripts/embed-keys.sh $(KEYS_FILES) $@

$(KEYS_DIR)/keys.o: $(KEYS_DIR)/keys.cpp
	@echo "efi: signature keys"
	@g++ $(EFI_TARGET_FLAGS) $(EFI_OPT_FLAGS) $(EFI_CPPFLAGS) $(EFI_CXXFLAGS) -c $< -o $@

$(KEYS_LIB): $(KEYS_DIR)/keys.o
	@rm -f $@ && ar rcs $@ $<
