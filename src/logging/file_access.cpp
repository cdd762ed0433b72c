#include "logging/file_access.h"

#include <dirent.h>
#include <errno.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cstring>

namespace {

FATFS g_default_volume = {1, ""};
FATFS* g_volume = &g_default_volume;

FRESULT from_errno(int error) {
  if (error == ENOENT || error == ENOTDIR) return FR_NO_FILE;
  if (error == EEXIST) return FR_EXIST;
  return FR_DISK_ERR;
}

}  // namespace

FRESULT f_open(FIL* fp, const char* path, unsigned char mode) {
  if (!fp || !path) return FR_INVALID_OBJECT;
  if (fp->fp) {
    fprintf(stderr, "WARNING: Duplicate OPEN FILE request on %p, oldpath=%s, newpath=%s\n",
            (void*)fp, fp->path, path);
    fclose(fp->fp);  // opening anyway must not leak the old stream
    fp->fp = nullptr;
  }
  bool write = (mode & (FA_WRITE | FA_CREATE_ALWAYS)) != 0;
  FILE* stream = fopen(path, write ? "w+b" : "rb");
  if (!stream) return FR_NO_FILE;
  fp->fs = g_volume;
  fp->fp = stream;
  fp->writable = write;
  fp->fsize = 0;
  fp->pos = 0;
  snprintf(fp->path, sizeof fp->path, "%s", path);
  if (!write) {
    struct stat st;
    if (fstat(fileno(stream), &st) == 0) fp->fsize = (FSIZE_t)st.st_size;
  }
  return FR_OK;
}

FRESULT f_close(FIL* fp) {
  if (!fp) return FR_INVALID_OBJECT;
  if (!fp->fp) {
    fprintf(stderr, "WARNING: Duplicate CLOSE FILE request on %s\n", fp->path);
    return FR_OK;
  }
  int rc = fclose(fp->fp);
  fp->fp = nullptr;
  // Logs are shared between the daemon, the user and other tools.
  if (fp->writable) chmod(fp->path, 0666);
  return rc == 0 ? FR_OK : FR_DISK_ERR;
}

FRESULT f_read(FIL* fp, void* buff, UINT btr, UINT* br) {
  if (br) *br = 0;
  if (!fp || !fp->fp) return FR_INVALID_OBJECT;
  size_t n = btr ? fread(buff, 1, btr, fp->fp) : 0;
  if (br) *br = (UINT)n;
  fp->pos += n;
  return n == btr ? FR_OK : FR_DISK_ERR;
}

FRESULT f_write(FIL* fp, const void* buff, UINT btw, UINT* bw) {
  if (bw) *bw = 0;
  if (!fp || !fp->fp) return FR_INVALID_OBJECT;
  size_t n = btw ? fwrite(buff, 1, btw, fp->fp) : 0;
  if (bw) *bw = (UINT)n;
  fp->pos += n;
  if (fp->pos > fp->fsize) fp->fsize = fp->pos;
  return n == btw ? FR_OK : FR_DISK_ERR;
}

FRESULT f_lseek(FIL* fp, FSIZE_t ofs) {
  if (!fp || !fp->fp) return FR_INVALID_OBJECT;
  if (ofs > (FSIZE_t)INT64_MAX || fseeko(fp->fp, (off_t)ofs, SEEK_SET) != 0) return FR_DISK_ERR;
  fp->pos = ofs;
  return FR_OK;
}

FRESULT f_sync(FIL* fp) {
  if (!fp || !fp->fp) return FR_INVALID_OBJECT;
  return fflush(fp->fp) == 0 ? FR_OK : FR_DISK_ERR;
}

FSIZE_t f_tell(FIL* fp) {
  if (!fp || !fp->fp) return 0;
  return fp->pos;
}

FSIZE_t f_size(const FIL* fp) { return fp ? fp->fsize : 0; }

FRESULT f_write_at(FIL* fp, FSIZE_t ofs, const void* buff, UINT btw) {
  if (!fp || !fp->fp) return FR_INVALID_OBJECT;
  // Buffered bytes must reach the file first so that both land in order.
  if (fflush(fp->fp) != 0) return FR_DISK_ERR;
  const char* p = static_cast<const char*>(buff);
  UINT done = 0;
  while (done < btw) {
    ssize_t n = pwrite(fileno(fp->fp), p + done, btw - done, (off_t)(ofs + done));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return FR_DISK_ERR;
    done += (UINT)n;
  }
  if (ofs + btw > fp->fsize) fp->fsize = ofs + btw;
  return FR_OK;
}

FRESULT f_opendir(FF_DIR* dp, const char* path) {
  if (!dp || !path) return FR_INVALID_OBJECT;
  DIR* handle = opendir(path);
  if (!handle) return from_errno(errno);
  dp->handle = handle;
  return FR_OK;
}

FRESULT f_readdir(FF_DIR* dp, FILINFO* fno) {
  if (!dp || !dp->handle || !fno) return FR_INVALID_OBJECT;
  memset(fno, 0, sizeof *fno);
  for (;;) {
    errno = 0;
    struct dirent* entry = readdir(static_cast<DIR*>(dp->handle));
    if (!entry) return errno ? FR_DISK_ERR : FR_OK;
    if (strcmp(entry->d_name, ".") == 0 || strcmp(entry->d_name, "..") == 0) continue;
    snprintf(fno->fname, sizeof fno->fname, "%s", entry->d_name);
    struct stat st;
    if (fstatat(dirfd(static_cast<DIR*>(dp->handle)), entry->d_name, &st, 0) == 0) {
      fno->fsize = S_ISDIR(st.st_mode) ? 0 : (FSIZE_t)st.st_size;
      fno->fattrib = S_ISDIR(st.st_mode) ? AM_DIR : 0;
    }
    return FR_OK;
  }
}

FRESULT f_closedir(FF_DIR* dp) {
  if (!dp || !dp->handle) return FR_INVALID_OBJECT;
  closedir(static_cast<DIR*>(dp->handle));
  dp->handle = nullptr;
  return FR_OK;
}

FRESULT f_mkdir(const char* path) {
  if (!path) return FR_INVALID_OBJECT;
  return mkdir(path, 0700) == 0 ? FR_OK : from_errno(errno);
}

FRESULT f_unlink(const char* path) {
  if (!path) return FR_INVALID_OBJECT;
  if (unlink(path) == 0) return FR_OK;
  if (errno == EISDIR && rmdir(path) == 0) return FR_OK;
  return from_errno(errno);
}

FRESULT f_stat(const char* path, FILINFO* fno) {
  if (!path) return FR_INVALID_OBJECT;
  struct stat st;
  if (stat(path, &st) != 0) return from_errno(errno);
  if (fno) {
    memset(fno, 0, sizeof *fno);
    fno->fsize = S_ISDIR(st.st_mode) ? 0 : (FSIZE_t)st.st_size;
    fno->fattrib = S_ISDIR(st.st_mode) ? AM_DIR : 0;
    const char* base = strrchr(path, '/');
    snprintf(fno->fname, sizeof fno->fname, "%s", base ? base + 1 : path);
  }
  return FR_OK;
}

FRESULT f_getfree(const char* path, uint64_t* clusters, uint32_t* cluster_bytes) {
  struct statvfs vfs;
  if (statvfs(path && *path ? path : ".", &vfs) != 0) return from_errno(errno);
  if (clusters) *clusters = (uint64_t)vfs.f_bavail;
  if (cluster_bytes) *cluster_bytes = (uint32_t)vfs.f_frsize;
  return FR_OK;
}

FRESULT f_mount(FATFS* fs, const char*, unsigned char) {
  // The host has one volume; mounting replaces the object files refer to.
  g_volume = fs ? fs : &g_default_volume;
  g_volume->mounted = 1;
  return FR_OK;
}

FRESULT f_setlabel(const char* label) {
  if (!label) return FR_INVALID_OBJECT;
  snprintf(g_volume->label, sizeof g_volume->label, "%s", label);
  return FR_OK;
}
