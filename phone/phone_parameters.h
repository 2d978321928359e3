#pragma once
#include "phone_layout.h"

namespace corvina {

// Fills the block from the file; aborts the process on a bad file.
void ReadPhoneExtractorParameters(PhoneExtractorBlock* model, const char* path);

}  // namespace corvina
