// A small file API in the style of an embedded FAT library, backed by host
// stdio, so that the BLF code reads the same on the host and on a logger.
#pragma once

#include <cstdint>
#include <cstdio>

typedef unsigned int UINT;
typedef uint64_t FSIZE_t;

enum FRESULT : int {
  FR_OK = 0,
  FR_DISK_ERR = 1,        // short read or write, other I/O failure
  FR_NO_FILE = 4,         // could not be opened or found
  FR_EXIST = 8,           // directory or file already exists
  FR_INVALID_OBJECT = 9,  // no file object or no stream
};

enum : unsigned char {
  FA_READ = 0x01,
  FA_WRITE = 0x02,
  FA_CREATE_ALWAYS = 0x08,
};

struct FATFS {
  int mounted;
  char label[64];
};

struct FIL {
  FATFS* fs;        // the default volume
  FILE* fp;         // null when closed
  FSIZE_t fsize;    // grows with writes past the end
  FSIZE_t pos;      // stream position, tracked here to spare the stdio queries
  int writable;
  char path[1024];
};

struct FILINFO {
  FSIZE_t fsize;
  unsigned char fattrib;  // AM_DIR when a directory
  char fname[256];
};

enum : unsigned char { AM_DIR = 0x10 };

struct FF_DIR {
  void* handle;  // host directory stream
};

// A zero-initialised FIL is closed. FA_WRITE opens create-or-truncate read/write;
// FA_READ alone opens read-only.
FRESULT f_open(FIL* fp, const char* path, unsigned char mode);
FRESULT f_close(FIL* fp);
FRESULT f_read(FIL* fp, void* buff, UINT btr, UINT* br);
FRESULT f_write(FIL* fp, const void* buff, UINT btw, UINT* bw);
FRESULT f_lseek(FIL* fp, FSIZE_t ofs);
FRESULT f_sync(FIL* fp);
// Current stream position; 0 for a closed object.
FSIZE_t f_tell(FIL* fp);
FSIZE_t f_size(const FIL* fp);
// Writes at an absolute offset without moving the stream position.
FRESULT f_write_at(FIL* fp, FSIZE_t ofs, const void* buff, UINT btw);

FRESULT f_opendir(FF_DIR* dp, const char* path);
// Next entry; fno->fname is empty at the end of the directory.
FRESULT f_readdir(FF_DIR* dp, FILINFO* fno);
FRESULT f_closedir(FF_DIR* dp);
FRESULT f_mkdir(const char* path);
FRESULT f_unlink(const char* path);
FRESULT f_stat(const char* path, FILINFO* fno);
// Free space of the volume holding path, in clusters of *cluster_bytes.
FRESULT f_getfree(const char* path, uint64_t* clusters, uint32_t* cluster_bytes);
FRESULT f_mount(FATFS* fs, const char* path, unsigned char opt);
FRESULT f_setlabel(const char* label);
