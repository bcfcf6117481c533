# SPDX-License-Identifier: Apache-2.0
# The public headers: what a user of the installed libraries compiles against, as paths below the
# include folder. This list is the one home of the public API: the install rule (and so the
# libslot-dev package), the API documentation and the install tests use it. A header missing here
# is an internal of the build tree; a public header includes only public headers.
set(SLOT_PUBLIC_HEADERS
    # Slots, their configuration and the factory.
    Slot/Slot.h
    Slot/Export.h
    Slot/Version.h  # generated from the project version
    Slot/ISlotConfiguration.h
    Slot/IFileOutputCfg.h
    Slot/ISlot.h
    Slot/AbortSlotCreationException.h
    Slot/ConfigurationTags.h
    Slot/SlotFactory.h
    Slot/SlotNames.h
    # Zero-copy pools: loans, counted holds and the survey of one pool.
    Slot/PoolFactory.h
    Slot/PoolWriter.h
    Slot/PoolBlock.h
    Slot/PoolSurvey.h
    # Writing and reading.
    Slot/SlotWriter.h
    Slot/WriteOutcome.h
    Slot/SimpleSlotRW.h
    Slot/BoostInterprocess/BaseQueueSlot.h
    Slot/BoostInterprocess/DiscardingSlot.h
    Slot/BoostInterprocess/ReliableSlot.h
    Slot/BoostInterprocess/BaseSlotReader.h
    Slot/BoostInterprocess/DiscardingSlotReader.h
    Slot/BoostInterprocess/ReliableSlotReader.h
    # The named-pipe server endpoint and its reader (a stub on Linux, see WindowsPipeServerSlot.h).
    Slot/WindowsPipe/WindowsPipeServerSlot.h
    Slot/WindowsPipe/WindowsPipeReader.h
    # Looking at the slots of a machine without disturbing them.
    Slot/SlotSurvey.h
    Slot/SlotActivity.h
    Slot/SlotAttachments.h
    Slot/SlotLeftovers.h
    Slot/SlotReportJson.h
    Slot/SlotText.h
    # libshared: publish/subscribe, byte buffers, shared memory, locks and conditions.
    shared/shared.h
    shared/Export.h
    shared/SizedArray.h
    shared/ISubscriber.h
    shared/INotifier.h
    shared/Notifier.h
    shared/ReaderNotifier.h  # the base of every reader
    shared/ProxySubscriber.h
    shared/ILockable.h
    shared/ISyncEvent.h
    shared/ISpinWait.h
    shared/LockablePtr.h
    shared/InterprocCondition.h
    shared/InterprocConditionPack.h
    shared/RobustMutex.h  # used inline by LockablePtr.h and InterprocConditionPack.h
    shared/SharedMemory.h
    shared/SingletonMutex.h
    shared/WaitForAsyncOpHandler.h
    shared/FileHelpers.h
    shared/FileLock.h      # held by ReliableSlotReader and WindowsPipeReader
    shared/SharedFolder.h  # held by FileUtils::FSBase
    shared/WriteOutcome.h
    # libFileUtils: named pipes and file outputs.
    FileUtils/Export.h
    FileUtils/FSBase.h
    FileUtils/FSSAutoReopen.h
    FileUtils/FSUtils.h
    FileUtils/FStreamSubscriber.h
    FileUtils/NamedPipeCreator.h
    FileUtils/PosixFileReader.h
    # libIoUtils.
    IoUtils/Export.h
    IoUtils/AccumulationBuffer.h)

# Where each public header is in this tree: src/, or the generated folder of the build.
set(SLOT_PUBLIC_HEADER_FILES "")
foreach(header IN LISTS SLOT_PUBLIC_HEADERS)
    if(EXISTS ${PROJECT_SOURCE_DIR}/src/${header})
        list(APPEND SLOT_PUBLIC_HEADER_FILES ${PROJECT_SOURCE_DIR}/src/${header})
    else()
        list(APPEND SLOT_PUBLIC_HEADER_FILES ${PROJECT_BINARY_DIR}/generated/${header})
    endif()
endforeach()

# Installs the public headers (component "dev") and writes the list, one a line, to
# <build>/public-headers.txt for the install tests.
function(slot_install_public_headers)
    list(LENGTH SLOT_PUBLIC_HEADERS count)
    math(EXPR last "${count} - 1")
    foreach(i RANGE ${last})
        list(GET SLOT_PUBLIC_HEADERS ${i} header)
        list(GET SLOT_PUBLIC_HEADER_FILES ${i} file)
        get_filename_component(dir ${header} DIRECTORY)
        install(FILES ${file} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/${dir} COMPONENT dev)
    endforeach()
    list(JOIN SLOT_PUBLIC_HEADERS "\n" lines)
    file(WRITE ${PROJECT_BINARY_DIR}/public-headers.txt "${lines}\n")
endfunction()
