/*
 * What the `data` of a plain device in the driver's table holds, by its `kind`. Plain C, no includes of its own.
 */
#ifndef LAB_DRIVER_PLAINDEVICE_H
#define LAB_DRIVER_PLAINDEVICE_H

#include "lab/state/DriverTable.h"

/*
 * Canned answers: a row of these, each followed by its `length` bytes and padded to a multiple of 4. A request gets
 * the first one with its control code; a code that is not there ends with STATUS_NOT_SUPPORTED.
 */
#define LAB_PLAIN_CANNED 1u
#define LAB_PLAIN_ANSWER_BYTES 2048u

typedef struct LabPlainAnswer
{
    LabU32 code;   /* control code */
    LabU32 status; /* NTSTATUS; 0: the bytes are returned */
    LabU32 delayMs;
    LabU32 length;
} LabPlainAnswer;

#endif
