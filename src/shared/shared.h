// SPDX-License-Identifier: Apache-2.0
#pragma once

// Every public header of libshared.
#include <shared/Export.h>
#include <shared/FileHelpers.h>
#include <shared/FileLock.h>
#include <shared/ILockable.h>
#include <shared/INotifier.h>
#include <shared/ISpinWait.h>
#include <shared/ISubscriber.h>
#include <shared/ISyncEvent.h>
#include <shared/InterprocCondition.h>
#include <shared/InterprocConditionPack.h>
#include <shared/LockablePtr.h>
#include <shared/Notifier.h>
#include <shared/ProxySubscriber.h>
#include <shared/ReaderNotifier.h>
#include <shared/RobustMutex.h>
#include <shared/SharedFolder.h>
#include <shared/SharedMemory.h>
#include <shared/SingletonMutex.h>
#include <shared/SizedArray.h>
#include <shared/WaitForAsyncOpHandler.h>
#include <shared/WriteOutcome.h>
