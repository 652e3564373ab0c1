/* A second EFI program for the chain-loading test: it says that it ran and
 * from which file, and returns success to whoever started it. */
#include <efi.h>
#include <efilib.h>

EFI_STATUS efi_main(EFI_HANDLE image, EFI_SYSTEM_TABLE *systemTable) {
  InitializeLib(image, systemTable);
  EFI_LOADED_IMAGE *loaded = NULL;
  EFI_STATUS status = uefi_call_wrapper(BS->HandleProtocol, 3, image, &LoadedImageProtocol,
                                        (void **)&loaded);
  if (EFI_ERROR(status) || loaded == NULL || loaded->FilePath == NULL) {
    Print(L"chained program ran without a file path\n");
    return EFI_SUCCESS;
  }
  CHAR16 *path = DevicePathToStr(loaded->FilePath);
  Print(L"chained program ran from %s\n", path ? path : L"(unprintable path)");
  if (path) FreePool(path);
  return EFI_SUCCESS;
}
