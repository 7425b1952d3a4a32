/*
 * Signed result codes that replies carry beside the status of the request: a request that was understood and refused
 * succeeds with a negative result.
 */
#ifndef VRKFS_RESULTS_H
#define VRKFS_RESULTS_H

#define VRKFS_RESULT_DONE 0

/* Format */
#define VRKFS_FORMAT_BAD_DEVICE_COUNT (-24) /* 0, above 14, or odd and above 1 */
#define VRKFS_FORMAT_DEVICE_ABSENT (-25)    /* a listed device is not there, or no device number */
#define VRKFS_FORMAT_DEVICE_IN_USE (-26)    /* a listed device belongs to a volume that is open */
#define VRKFS_FORMAT_BAD_NAME (-27)
#define VRKFS_FORMAT_NAME_TAKEN (-28) /* another visible volume of the card has the name */

/* Allocation of video space */
#define VRKFS_ALLOCATE_NO_SPACE (-29)

/* Move of a file's segment */
#define VRKFS_MOVE_NOT_FREE (-1)   /* blocks at the destination are taken */
#define VRKFS_MOVE_NO_SEGMENT (-2) /* the file has no such segment */
#define VRKFS_MOVE_FAILED (-3)     /* the copy or the re-pointing failed: the segment stays where it was */

/* Command port */
#define VRKFS_PORT_FAILED (-1)
#define VRKFS_PORT_UNKNOWN_COMMAND (-2)
#define VRKFS_PORT_INCOMPLETE (-3) /* a write arrived and no command has completed since */

#endif /* VRKFS_RESULTS_H */
