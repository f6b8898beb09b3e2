#ifndef OSTRELLED_OSTRELLED_H
#define OSTRELLED_OSTRELLED_H

// Everything the library offers, in one include.
#include <ostrelled/Types.h>
#include <ostrelled/StringAssistant.h>
#include <ostrelled/BStr.h>
#include <ostrelled/ScalarTypes.h>
#include <ostrelled/VariantInterface.h>
#include <ostrelled/Variant.h>
#include <ostrelled/SafeArray.h>
#include <ostrelled/VariantWrapper.h>
#include <ostrelled/OS.h>
#include <ostrelled/OS_Clock.h>
#include <ostrelled/OS_Thread.h>
#include <ostrelled/OS_ShareMemory.h>
#include <ostrelled/OS_Sync.h>
#include <ostrelled/OS_Mutex.h>
#include <ostrelled/OS_RWMutex.h>
#include <ostrelled/OS_Semaphore.h>
#include <ostrelled/OS_Event.h>

#endif
