#pragma once

extern "C" {
void* HI_MPI_SYS_Mmap(unsigned int u32PhyAddr, unsigned int u32Size);
void* HI_MPI_SYS_MmapCache(unsigned int u32PhyAddr, unsigned int u32Size);
int HI_MPI_SYS_Munmap(void* pVirAddr, unsigned int u32Size);
}
