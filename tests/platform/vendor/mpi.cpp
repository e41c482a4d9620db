// A media library as the vendor's, for the build with the two settings: every call fails.
#include "mpi_sys.h"
#include "mpi_vpss.h"

int HI_MPI_VPSS_GetChnFrame(int, int, VIDEO_FRAME_INFO_S*, int) { return -1; }
int HI_MPI_VPSS_ReleaseChnFrame(int, int, VIDEO_FRAME_INFO_S*) { return -1; }
void* HI_MPI_SYS_Mmap(unsigned int, unsigned int) { return nullptr; }
void* HI_MPI_SYS_MmapCache(unsigned int, unsigned int) { return nullptr; }
int HI_MPI_SYS_Munmap(void*, unsigned int) { return -1; }
