#ifndef OSTRELLED_OSTRELLED_H
#define OSTRELLED_OSTRELLED_H

/// @file
/// Everything the library offers, in one include, with the release it came with.

#include <ostrelled/BStr.h>
#include <ostrelled/OS.h>
#include <ostrelled/OS_CLibrary.h>
#include <ostrelled/OS_Clock.h>
#include <ostrelled/OS_DynamicLibraryLoader.h>
#include <ostrelled/OS_Environment.h>
#include <ostrelled/OS_Event.h>
#include <ostrelled/OS_File.h>
#include <ostrelled/OS_FileSystem.h>
#include <ostrelled/OS_Folder.h>
#include <ostrelled/OS_MemoryManager.h>
#include <ostrelled/OS_Mutex.h>
#include <ostrelled/OS_RWMutex.h>
#include <ostrelled/OS_Semaphore.h>
#include <ostrelled/OS_Serial.h>
#include <ostrelled/OS_ShareMemory.h>
#include <ostrelled/OS_Socket.h>
#include <ostrelled/OS_Sync.h>
#include <ostrelled/OS_System.h>
#include <ostrelled/OS_Thread.h>
#include <ostrelled/OS_UTF8Helper.h>
#include <ostrelled/SafeArray.h>
#include <ostrelled/ScalarTypes.h>
#include <ostrelled/StringAssistant.h>
#include <ostrelled/Types.h>
#include <ostrelled/Variant.h>
#include <ostrelled/VariantInterface.h>
#include <ostrelled/VariantWrapper.h>
#include <ostrelled/Version.h>

#endif
