/* gmime_parts.c: the GMime 3 side of bench/compare's decomposition rows.
 * Parses each message file named on the command line (or each file in a
 * directory named there) and writes every leaf part, decoded, to a file
 * of its own in OUTDIR, as SMTPRecvNext does.
 *
 *   gmime_parts OUTDIR FILE-OR-DIR...
 *
 * The decoded bytes are read through a filter stream and written with
 * write(2): g_mime_data_wrapper_write_to_stream would end with
 * g_mime_stream_flush, which calls fsync on a file stream, and nobody
 * else in the comparison syncs. Prints the seconds the parsing and writing
 * took (start-up and g_mime_init excluded). Exit status 0, or 1 on any
 * failure. */
#include <dirent.h>
#include <fcntl.h>
#include <gmime/gmime.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

static const char* out_dir;
static unsigned long part_count;
static int failed;

static void write_part(GMimeObject* parent, GMimeObject* part, gpointer data) {
    (void)parent;
    (void)data;
    if (!GMIME_IS_PART(part)) return;
    GMimeDataWrapper* content = g_mime_part_get_content(GMIME_PART(part));
    if (content == NULL) return;
    GMimeStream* encoded = g_mime_data_wrapper_get_stream(content);
    g_mime_stream_reset(encoded);
    GMimeStream* decoded = g_mime_stream_filter_new(encoded);
    GMimeFilter* decoder =
        g_mime_filter_basic_new(g_mime_data_wrapper_get_encoding(content), FALSE);
    g_mime_stream_filter_add(GMIME_STREAM_FILTER(decoded), decoder);
    g_object_unref(decoder);

    char path[4096];
    snprintf(path, sizeof path, "%s/%08lu.part", out_dir, part_count++);
    int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd < 0) {
        perror(path);
        failed = 1;
    } else {
        char buffer[65536];
        ssize_t n;
        while ((n = g_mime_stream_read(decoded, buffer, sizeof buffer)) > 0) {
            if (write(fd, buffer, (size_t)n) != n) {
                perror(path);
                failed = 1;
                break;
            }
        }
        close(fd);
    }
    g_object_unref(decoded);
}

static void parse_file(const char* path) {
    GError* error = NULL;
    GMimeStream* stream = g_mime_stream_fs_open(path, O_RDONLY, 0, &error);
    if (stream == NULL) {
        fprintf(stderr, "%s: %s\n", path, error->message);
        g_error_free(error);
        failed = 1;
        return;
    }
    GMimeParser* parser = g_mime_parser_new_with_stream(stream);
    GMimeMessage* message = g_mime_parser_construct_message(parser, NULL);
    if (message == NULL) {
        fprintf(stderr, "%s: not a message\n", path);
        failed = 1;
    } else {
        g_mime_message_foreach(message, write_part, NULL);
        g_object_unref(message);
    }
    g_object_unref(parser);
    g_object_unref(stream);
}

int main(int argc, char** argv) {
    if (argc < 3) {
        fprintf(stderr, "usage: %s OUTDIR FILE-OR-DIR...\n", argv[0]);
        return 2;
    }
    out_dir = argv[1];
    g_mime_init();
    struct timespec start, end;
    clock_gettime(CLOCK_MONOTONIC, &start);
    for (int i = 2; i < argc; ++i) {
        struct stat status;
        if (stat(argv[i], &status) == 0 && S_ISDIR(status.st_mode)) {
            DIR* dir = opendir(argv[i]);
            struct dirent* entry;
            while (dir != NULL && (entry = readdir(dir)) != NULL) {
                if (entry->d_name[0] == '.') continue;
                char path[4096];
                snprintf(path, sizeof path, "%s/%s", argv[i], entry->d_name);
                parse_file(path);
            }
            if (dir != NULL) closedir(dir);
        } else {
            parse_file(argv[i]);
        }
    }
    clock_gettime(CLOCK_MONOTONIC, &end);
    printf("%.6f\n", (double)(end.tv_sec - start.tv_sec) + (end.tv_nsec - start.tv_nsec) / 1e9);
    g_mime_shutdown();
    return failed;
}
