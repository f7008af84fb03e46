/* The C interface of the talvern library: archives and one-shot blocks for
 * programs in C and for other languages that load libraries through a C
 * interface (Python's ctypes, C#, Rust, Go). It is exported from the same
 * shared library as the C++ interface and needs only a C99 compiler.
 *
 * Conventions:
 * - Every function that can fail returns a Win32 error code: 0 on success,
 *   for example 2 (file not found), 23 (CRC mismatch), 80 (the file
 *   exists), 1223 (cancelled by a callback), 1804 (not an archive of this
 *   format). talvern_strerror() turns a code into a sentence.
 * - Paths and names are UTF-8. Paths are the system's own ("/home/me/x",
 *   "C:\\Users\\me\\x"; elsewhere "A:\\x" and "\\\\server\\share\\x" reach the
 *   drives and shares the platform layer maps); names inside an archive
 *   use '/' between folders ("docs/readme.txt").
 * - Handles are opaque. Whatever the library allocates for the caller is
 *   released with the matching function (talvern_close, talvern_free,
 *   talvern_file_close). No C++ exception crosses this interface.
 * - A handle is used by one thread at a time; callbacks run on that thread,
 *   inside the call that triggered them. Different handles may be used on
 *   different threads.
 */
#ifndef TALVERN_TALVERN_C_H
#define TALVERN_TALVERN_C_H

#include <talvern/export.h>

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Errors ------------------------------------------------------------- */

#define TALVERN_OK 0u
#define TALVERN_ERROR_FILE_NOT_FOUND 2u
#define TALVERN_ERROR_INVALID_DATA 13u
#define TALVERN_ERROR_CRC 23u
#define TALVERN_ERROR_FILE_EXISTS 80u
#define TALVERN_ERROR_INVALID_PARAMETER 87u
#define TALVERN_ERROR_CANCELLED 1223u
#define TALVERN_ERROR_NOT_AN_ARCHIVE 1804u

/* A sentence for a Win32 error code ("CRC mismatch", ...). The text is
 * static: never freed, valid for the life of the process. */
TALVERN_API const char* talvern_strerror(uint32_t code);

/* The library's version, "MAJOR.MINOR.PATCH". */
TALVERN_API const char* talvern_version(void);

/* Frees a block the library allocated for the caller (talvern_read). */
TALVERN_API void talvern_free(void* block);

/* ---- Callbacks ---------------------------------------------------------- */

/* Answers of the overwrite callback. */
#define TALVERN_OVERWRITE_CANCEL 0
#define TALVERN_OVERWRITE_REPLACE 1
#define TALVERN_OVERWRITE_SKIP 2
#define TALVERN_OVERWRITE_BACKUP 3 /* the existing file is renamed NAME.ORG */
#define TALVERN_OVERWRITE_RENAME 4 /* the new file is written as NAME.NEW */

typedef struct talvern_entry talvern_entry;

/* What a host hears during a job. Set `size` to sizeof(talvern_callbacks);
 * any callback may be NULL. The library keeps a copy of the struct. */
typedef struct talvern_callbacks {
  size_t size;
  void* user; /* passed to every callback */
  /* Progress in bytes of original data: of the entry being worked on
   * (`name`, a name inside the archive) and of the whole job. The values
   * never go down, and every entry ends with entry_done == entry_total.
   * Return non-zero to go on, 0 to cancel the job (error 1223). */
  int (*progress)(void* user, const char* name, uint64_t entry_done, uint64_t entry_total,
                  uint64_t job_done, uint64_t job_total);
  /* Extracting: `path` (on disk) exists and `entry` would be written there.
   * Return a TALVERN_OVERWRITE_ answer. NULL: replace. Never asked for a
   * folder that exists: it is used as it is. */
  int (*overwrite)(void* user, const char* path, const talvern_entry* entry);
  /* Removable media: disk number `disk` (counted from 1) of the archive is
   * needed in the drive whose root is `root` ("A:\\"), for writing or
   * for reading; `wrong_medium` is non-zero when the medium there was
   * tried and is not the right one. Return non-zero once it is in place, 0 to cancel. NULL:
   * cancel. Numbered volumes in one folder never ask. */
  int (*next_volume)(void* user, const char* root, uint32_t disk, int for_writing,
                     int wrong_medium);
} talvern_callbacks;

/* ---- Reading an archive ------------------------------------------------- */

typedef struct talvern_archive talvern_archive;

/* One file or folder of an archive. The strings belong to the archive
 * handle and live until talvern_close. Times are FILETIME values: 100 ns
 * intervals since 1601-01-01 UTC, 0 when not stored. */
struct talvern_entry {
  const char* path;     /* folder and name: "docs/readme.txt" */
  const char* name;     /* "readme.txt" */
  const char* folder;   /* "docs", or "" at the top */
  uint64_t size;        /* original bytes */
  uint64_t packed_size; /* stored bytes, over all volumes */
  uint32_t method;      /* 0 stored, 1 compressed */
  uint32_t crc;         /* CRC-32 of the original bytes */
  uint32_t attributes;  /* FILE_ATTRIBUTE_ bits: 0x10 folder, 0x01 read-only, ... */
  int is_dir;
  uint64_t creation_time;
  uint64_t last_access_time;
  uint64_t last_write_time;
  uint32_t volume; /* number of the volume its record is in, from 0 */
};

/* Opens an archive for reading and reads its list of entries: one file
 * ("backup.arc"), or a numbered set named by its base name ("set" or
 * "set.arc" when "set.000" exists) or by any of its volumes ("set.003").
 * `callbacks` may be NULL. On failure *archive is NULL. */
TALVERN_API uint32_t talvern_open(const char* path, const talvern_callbacks* callbacks,
                                  talvern_archive** archive);
/* Closes the handle and frees everything it holds. NULL is ignored. */
TALVERN_API void talvern_close(talvern_archive* archive);
/* Replaces the callbacks (NULL: none). */
TALVERN_API uint32_t talvern_set_callbacks(talvern_archive* archive,
                                           const talvern_callbacks* callbacks);

/* The entries, in archive order. */
TALVERN_API uint32_t talvern_entry_count(const talvern_archive* archive, size_t* count);
/* 87 when index is not below the count. */
TALVERN_API uint32_t talvern_entry_at(const talvern_archive* archive, size_t index,
                                      const talvern_entry** entry);
/* The last entry named `path` ('/' or '\\' between folders, compared
 * without regard to case); 2 when there is none. */
TALVERN_API uint32_t talvern_find(const talvern_archive* archive, const char* path,
                                  const talvern_entry** entry);

/* Decodes every file and checks its size and CRC; writes nothing. Stops at
 * the first damaged file (23 CRC, 29 size) with its name in
 * talvern_failed_name. */
TALVERN_API uint32_t talvern_test(talvern_archive* archive);

/* Selection flags of talvern_extract. */
#define TALVERN_EXTRACT_NAMES 0x1u    /* `select` holds exact paths, not patterns */
#define TALVERN_EXTRACT_FLAT 0x2u     /* leave out the folders: every file lands in target */
#define TALVERN_EXTRACT_NO_TIMES 0x4u /* do not set the stored times */

/* Extracts into the folder `target` (created when missing) the entries
 * that `select` names, or all when count is 0. By default each string is
 * a pattern: '*' any run of characters but '/', '**' any run, '?' one
 * character, [abc], [a-z], [!abc]; a pattern without '/' matches an
 * entry's name, one with '/' its whole path; case does not matter. A
 * selected folder brings everything below it; the folders above a
 * selected entry are created. 2 when something in `select` matches
 * nothing (then nothing is extracted). */
TALVERN_API uint32_t talvern_extract(talvern_archive* archive, const char* target,
                                     const char* const* select, size_t count, uint32_t flags);

/* The contents of one file entry, in a block for talvern_free. */
TALVERN_API uint32_t talvern_read(talvern_archive* archive, const char* path, void** data,
                                  size_t* size);

/* The entry or file the last failure on this handle concerns ("" when
 * none). Valid until the next call on the handle. */
TALVERN_API const char* talvern_failed_name(const talvern_archive* archive);

/* ---- Creating and adding ------------------------------------------------ */

#define TALVERN_CREATE_STORE 0x1u   /* store files as they are, uncompressed */
#define TALVERN_CREATE_REPLACE 0x2u /* replace an existing archive (else 80) */

/* Creates an archive of what the folder `tree` holds (its files and
 * folders, named relative to it). volume_size 0 writes one file; otherwise
 * numbered volumes NAME.000, NAME.001, ... of at most volume_size bytes
 * each (the name's extension is dropped). A failed or cancelled create
 * leaves no archive behind. `callbacks` may be NULL. */
TALVERN_API uint32_t talvern_create(const char* archive, const char* tree, uint64_t volume_size,
                                    uint32_t flags, const talvern_callbacks* callbacks);
/* Creates an archive of the files and folders in `paths` (a folder with
 * everything below it), each stored under its own name at the top. */
TALVERN_API uint32_t talvern_create_from_list(const char* archive, const char* const* paths,
                                              size_t count, uint64_t volume_size, uint32_t flags,
                                              const talvern_callbacks* callbacks);
/* Adds the files and folders in `paths` to the end of an existing archive
 * (its last volume, which then grows without a limit). Each item is
 * committed on its own: a failure keeps the items added before it. Only
 * TALVERN_CREATE_STORE counts in flags. */
TALVERN_API uint32_t talvern_add(const char* archive, const char* const* paths, size_t count,
                                 uint32_t flags, const talvern_callbacks* callbacks);

/* ---- One-shot blocks ---------------------------------------------------- */
/* One block compressed or expanded in a single call, without an archive: a
 * 16-byte header followed by the data (see docs/compression.md). Method 0
 * stores, 1 compresses (0xFFFF: the default, 1). A NULL destination asks
 * for the size only: *result_size is then the size the block would have
 * (compressing) or its original size (expanding); pass 0xFFFFFFFF as
 * destination_size to learn it whatever it is. result_size may be NULL. */

typedef struct talvern_file talvern_file;

#define TALVERN_FILE_READ 0  /* an existing file, for reading */
#define TALVERN_FILE_WRITE 1 /* a new or emptied file, for reading and writing */

/* Files for the file forms: they are used from their start and never
 * closed by the one-shot functions. */
TALVERN_API uint32_t talvern_file_open(const char* path, int mode, talvern_file** file);
TALVERN_API uint32_t talvern_file_close(talvern_file* file);

TALVERN_API uint32_t talvern_compress_mem_to_mem(const void* source, uint32_t source_size,
                                                 void* destination, uint32_t destination_size,
                                                 uint32_t method, uint32_t* result_size);
TALVERN_API uint32_t talvern_expand_mem_to_mem(const void* source, uint32_t source_size,
                                               void* destination, uint32_t destination_size,
                                               uint32_t* result_size);
TALVERN_API uint32_t talvern_compress_file_to_mem(talvern_file* source, uint32_t source_size,
                                                  void* destination, uint32_t destination_size,
                                                  uint32_t method, uint32_t* result_size);
TALVERN_API uint32_t talvern_expand_mem_to_file(const void* source, uint32_t source_size,
                                                talvern_file* destination,
                                                uint32_t destination_size, uint32_t* result_size);
TALVERN_API uint32_t talvern_compress_mem_to_file(const void* source, uint32_t source_size,
                                                  talvern_file* destination,
                                                  uint32_t destination_size, uint32_t method,
                                                  uint32_t* result_size);
TALVERN_API uint32_t talvern_expand_file_to_mem(talvern_file* source, uint32_t source_size,
                                                void* destination, uint32_t destination_size,
                                                uint32_t* result_size);
TALVERN_API uint32_t talvern_compress_file_to_file(talvern_file* source, uint32_t source_size,
                                                   talvern_file* destination,
                                                   uint32_t destination_size, uint32_t method,
                                                   uint32_t* result_size);
TALVERN_API uint32_t talvern_expand_file_to_file(talvern_file* source, uint32_t source_size,
                                                 talvern_file* destination,
                                                 uint32_t destination_size, uint32_t* result_size);

#ifdef __cplusplus
}
#endif

#endif /* TALVERN_TALVERN_C_H */
