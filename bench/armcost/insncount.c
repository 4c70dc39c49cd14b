// SPDX-License-Identifier: LGPL-2.1-or-later
/*
 * qemu TCG plugin: guest instructions executed between two marker functions,
 * with the blocks that executed them.
 *
 * Arguments: on=ADDR,off=ADDR (hex entry points of the program's marker
 * functions; bit 0, the Thumb bit, is ignored), out=FILE, cover=PERCENT
 * (default 99). Each translated block adds its instruction count to one
 * counter and its own execution counter inline, so counting costs little;
 * the first instruction of each marker reads the counters. Each on/off pair
 * (a region) appends to FILE:
 *   R <instructions in the region>
 *   B <executions> <instructions per execution> <thumb 0|1> <insn>;<insn>;...
 * with B lines for the blocks that executed most instructions in the region,
 * largest first, until they cover PERCENT of them; the script feeds those
 * blocks to llvm-mca.
 *
 * Built on the build machine against qemu's own plugin header (the Debian
 * source package of the installed qemu-user); loaded with
 *   qemu-arm -plugin ./libinsncount.so,on=...,off=...,out=... program
 * The counters are shared by all guest threads: a thread running while a
 * region is open adds to it (the measuring program keeps to one thread).
 * A block that leaves early (a fault, a syscall mid-block) still counts in
 * full; over millions of instructions per region that does not show.
 */
#include <qemu-plugin.h>

#include <glib.h>
#include <inttypes.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

QEMU_PLUGIN_EXPORT int qemu_plugin_version = QEMU_PLUGIN_VERSION;

typedef struct Block {
    uint64_t executions;   /* added to inline on every entry */
    uint64_t atRegionStart;
    unsigned insns;
    int thumb;
    char *text;            /* the instructions, ';'-separated */
} Block;

static uint64_t g_executed;
static uint64_t g_regionStart;
static int g_inRegion;
static uint64_t g_onAddr, g_offAddr;
static double g_cover = 99.0;
static FILE *g_out;
static GMutex g_lock;
static GHashTable *g_blocks;   /* (vaddr, first bytes) -> Block* */

static void snapshot(gpointer key, gpointer value, gpointer user)
{
    (void)key;
    (void)user;
    Block *b = value;
    b->atRegionStart = b->executions;
}

static void markerOn(unsigned int vcpu, void *udata)
{
    (void)vcpu;
    (void)udata;
    g_mutex_lock(&g_lock);
    g_hash_table_foreach(g_blocks, snapshot, NULL);
    g_regionStart = g_executed;
    g_inRegion = 1;
    g_mutex_unlock(&g_lock);
}

static void collect(gpointer key, gpointer value, gpointer user)
{
    (void)key;
    Block *b = value;
    if (b->executions != b->atRegionStart)
        g_ptr_array_add(user, b);
}

static uint64_t regionInsns(const Block *b)
{
    return (b->executions - b->atRegionStart) * b->insns;
}

static gint byInsnsDescending(gconstpointer x, gconstpointer y)
{
    const uint64_t a = regionInsns(*(Block *const *)x), b = regionInsns(*(Block *const *)y);
    return a < b ? 1 : a > b ? -1 : 0;
}

static void markerOff(unsigned int vcpu, void *udata)
{
    (void)vcpu;
    (void)udata;
    g_mutex_lock(&g_lock);
    if (g_inRegion) {
        g_inRegion = 0;
        const uint64_t total = g_executed - g_regionStart;
        fprintf(g_out, "R %" PRIu64 "\n", total);
        GPtrArray *hot = g_ptr_array_new();
        g_hash_table_foreach(g_blocks, collect, hot);
        g_ptr_array_sort(hot, byInsnsDescending);
        uint64_t covered = 0;
        for (guint i = 0; i < hot->len && covered * 100.0 < g_cover * total; ++i) {
            const Block *b = g_ptr_array_index(hot, i);
            covered += regionInsns(b);
            fprintf(g_out, "B %" PRIu64 " %u %d %s\n", b->executions - b->atRegionStart, b->insns, b->thumb,
                    b->text);
        }
        g_ptr_array_free(hot, TRUE);
        fflush(g_out);
    }
    g_mutex_unlock(&g_lock);
}

static void onTranslate(qemu_plugin_id_t id, struct qemu_plugin_tb *tb)
{
    (void)id;
    const size_t n = qemu_plugin_tb_n_insns(tb);
    qemu_plugin_register_vcpu_tb_exec_inline(tb, QEMU_PLUGIN_INLINE_ADD_U64, &g_executed, n);

    /* Blocks are keyed by address and text, so a block translated again (or
     * code loaded again at the same address) shares or gets its own counter. */
    GString *text = g_string_new(NULL);
    int thumb = 0;
    for (size_t i = 0; i < n; ++i) {
        struct qemu_plugin_insn *insn = qemu_plugin_tb_get_insn(tb, i);
        const uint64_t addr = qemu_plugin_insn_vaddr(insn) & ~(uint64_t)1;
        if (addr == g_onAddr)
            qemu_plugin_register_vcpu_insn_exec_cb(insn, markerOn, QEMU_PLUGIN_CB_NO_REGS, NULL);
        else if (addr == g_offAddr)
            qemu_plugin_register_vcpu_insn_exec_cb(insn, markerOff, QEMU_PLUGIN_CB_NO_REGS, NULL);
        if (qemu_plugin_insn_size(insn) == 2)
            thumb = 1;
        char *disas = qemu_plugin_insn_disas(insn);
        if (i)
            g_string_append_c(text, ';');
        g_string_append(text, disas ? disas : "?");
        g_free(disas);
    }
    char *key = g_strdup_printf("%" PRIx64 " %s", qemu_plugin_tb_vaddr(tb), text->str);

    g_mutex_lock(&g_lock);
    Block *b = g_hash_table_lookup(g_blocks, key);
    if (!b) {
        b = g_new0(Block, 1);
        b->insns = (unsigned)n;
        b->text = g_string_free(text, FALSE);
        text = NULL;
        g_hash_table_insert(g_blocks, key, b);
        key = NULL;
    }
    /* A block of 4-byte instructions only can still be Thumb-2: the kernels
     * are Thumb, so one 2-byte instruction anywhere in it settles the mode. */
    b->thumb |= thumb;
    g_mutex_unlock(&g_lock);
    g_free(key);
    if (text)
        g_string_free(text, TRUE);
    qemu_plugin_register_vcpu_tb_exec_inline(tb, QEMU_PLUGIN_INLINE_ADD_U64, &b->executions, 1);
}

static void onExit(qemu_plugin_id_t id, void *udata)
{
    (void)id;
    (void)udata;
    if (g_out && g_out != stderr)
        fclose(g_out);
}

QEMU_PLUGIN_EXPORT int qemu_plugin_install(qemu_plugin_id_t id, const qemu_info_t *info,
                                           int argc, char **argv)
{
    (void)info;
    const char *outPath = NULL;
    for (int i = 0; i < argc; ++i) {
        if (strncmp(argv[i], "on=", 3) == 0)
            g_onAddr = strtoull(argv[i] + 3, NULL, 16) & ~(uint64_t)1;
        else if (strncmp(argv[i], "off=", 4) == 0)
            g_offAddr = strtoull(argv[i] + 4, NULL, 16) & ~(uint64_t)1;
        else if (strncmp(argv[i], "out=", 4) == 0)
            outPath = argv[i] + 4;
        else if (strncmp(argv[i], "cover=", 6) == 0)
            g_cover = strtod(argv[i] + 6, NULL);
        else {
            fprintf(stderr, "insncount: unknown argument %s\n", argv[i]);
            return -1;
        }
    }
    if (!g_onAddr || !g_offAddr) {
        fprintf(stderr, "insncount: needs on=ADDR,off=ADDR\n");
        return -1;
    }
    g_out = outPath ? fopen(outPath, "w") : stderr;
    if (!g_out) {
        fprintf(stderr, "insncount: cannot write %s\n", outPath);
        return -1;
    }
    g_blocks = g_hash_table_new(g_str_hash, g_str_equal);
    qemu_plugin_register_vcpu_tb_trans_cb(id, onTranslate);
    qemu_plugin_register_atexit_cb(id, onExit, NULL);
    return 0;
}
