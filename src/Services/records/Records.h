#pragma once

// Every record.
#include "Services/records/ComputerRecords.h"
#include "Services/records/DownloadRecords.h"
#include "Services/records/RegistrationRecords.h"
#include "Services/records/SharedFilesRecords.h"
#include "Services/records/SharedFilesTransferRecords.h"
#include "Services/records/SyncFileChangesRecords.h"
#include "Services/records/UploadRecords.h"
