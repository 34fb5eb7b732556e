/* Makes GLib's mutexes, conditions and main-loop dispatch visible to
 * ThreadSanitizer. GLib's own locking happens in the uninstrumented library,
 * so every access our code protects with it would be reported as a race.
 * Preloaded into the ThreadSanitizer run (the Makefile's tsan-test), these
 * wrappers call the real functions and annotate the acquire and release;
 * without ThreadSanitizer in the process (GStreamer's plugin scanner inherits
 * the preload) they only forward. A source's dispatch is ordered after its
 * attachment and before its removal; a dispatch still running at the removal
 * is not covered (the live-stream layer waits for it itself). */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <glib.h>
#include <pthread.h>
#include <stdlib.h>

void __tsan_acquire(void* addr) __attribute__((weak));
void __tsan_release(void* addr) __attribute__((weak));

/* GLib's definition, looked up on first use: GLib may lock before any
 * constructor of ours has run. */
#define REAL(name)                      \
  static __typeof__(&name) real_##name; \
  if (G_UNLIKELY(!real_##name)) real_##name = (__typeof__(&name))dlsym(RTLD_NEXT, #name)

static void acquire(void* addr) {
  if (__tsan_acquire) __tsan_acquire(addr);
}
static void release(void* addr) {
  if (__tsan_release) __tsan_release(addr);
}
/* GRecMutex keeps a recursive pthread mutex in its first field, whose calls
 * ThreadSanitizer sees only in part from GLib: once it exists the wrappers
 * lock it themselves; one not yet allocated goes through GLib. */
static pthread_mutex_t* rec_impl(GRecMutex* mutex) {
  return (pthread_mutex_t*)g_atomic_pointer_get(&mutex->p);
}

void g_mutex_lock(GMutex* mutex) {
  REAL(g_mutex_lock);
  real_g_mutex_lock(mutex);
  acquire(mutex);
}

gboolean g_mutex_trylock(GMutex* mutex) {
  REAL(g_mutex_trylock);
  if (!real_g_mutex_trylock(mutex)) return FALSE;
  acquire(mutex);
  return TRUE;
}

void g_mutex_unlock(GMutex* mutex) {
  REAL(g_mutex_unlock);
  release(mutex);
  real_g_mutex_unlock(mutex);
}

void g_rec_mutex_lock(GRecMutex* mutex) {
  pthread_mutex_t* impl = rec_impl(mutex);
  REAL(g_rec_mutex_lock);
  if (impl) {
    pthread_mutex_lock(impl);
  } else {
    real_g_rec_mutex_lock(mutex);
    acquire(mutex);
  }
}

gboolean g_rec_mutex_trylock(GRecMutex* mutex) {
  pthread_mutex_t* impl = rec_impl(mutex);
  REAL(g_rec_mutex_trylock);
  if (impl) return pthread_mutex_trylock(impl) == 0;
  if (!real_g_rec_mutex_trylock(mutex)) return FALSE;
  acquire(mutex);
  return TRUE;
}

void g_rec_mutex_unlock(GRecMutex* mutex) {
  pthread_mutex_t* impl = rec_impl(mutex);
  REAL(g_rec_mutex_unlock);
  release(mutex);
  if (impl) {
    pthread_mutex_unlock(impl);
  } else {
    real_g_rec_mutex_unlock(mutex);
  }
}

void g_cond_wait(GCond* cond, GMutex* mutex) {
  REAL(g_cond_wait);
  release(mutex);
  real_g_cond_wait(cond, mutex);
  acquire(mutex);
}

gboolean g_cond_wait_until(GCond* cond, GMutex* mutex, gint64 end_time) {
  gboolean signalled;
  REAL(g_cond_wait_until);
  release(mutex);
  signalled = real_g_cond_wait_until(cond, mutex, end_time);
  acquire(mutex);
  return signalled;
}

/* A function handed to a main context, with its data. */
typedef struct {
  GSourceFunc func;
  gpointer data;
  GDestroyNotify notify;
} Invoke;

static gboolean invoke_dispatch(gpointer user_data) {
  Invoke* call = user_data;
  acquire(call);
  return call->func(call->data);
}

static void invoke_free(gpointer user_data) {
  Invoke* call = user_data;
  if (call->notify) call->notify(call->data);
  free(call);
}

void g_main_context_invoke_full(GMainContext* context, gint priority, GSourceFunc function,
                                gpointer data, GDestroyNotify notify) {
  Invoke* call;
  REAL(g_main_context_invoke_full);
  call = malloc(sizeof(*call));
  if (!call) {
    real_g_main_context_invoke_full(context, priority, function, data, notify);
    return;
  }
  call->func = function;
  call->data = data;
  call->notify = notify;
  release(call);
  real_g_main_context_invoke_full(context, priority, invoke_dispatch, call, invoke_free);
}

void g_main_context_invoke(GMainContext* context, GSourceFunc function, gpointer data) {
  g_main_context_invoke_full(context, G_PRIORITY_DEFAULT, function, data, NULL);
}

/* Each GSourceFuncs table seen (static and few) gets a copy whose dispatch
 * is wrapped. */
#define MAX_SOURCE_KINDS 64
static struct {
  const GSourceFuncs* orig;
  GSourceFuncs copy;
} kinds[MAX_SOURCE_KINDS];
static gint kind_count; /* entries below it are complete and never change */
static pthread_mutex_t kinds_lock = PTHREAD_MUTEX_INITIALIZER;

static gboolean source_dispatch(GSource* source, GSourceFunc callback, gpointer user_data) {
  const GSourceFuncs* orig = NULL;
  gint i, n = g_atomic_int_get(&kind_count);
  gboolean again;
  for (i = 0; i < n && !orig; ++i) {
    if (source->source_funcs == &kinds[i].copy) orig = kinds[i].orig;
  }
  if (!orig) return FALSE; /* cannot happen: only copies dispatch here */
  acquire(source);
  again = orig->dispatch(source, callback, user_data);
  release(source);
  return again;
}

static GSourceFuncs* copy_of(GSourceFuncs* funcs) {
  GSourceFuncs* copy = NULL;
  gint i;
  pthread_mutex_lock(&kinds_lock);
  for (i = 0; i < kind_count && !copy; ++i) {
    if (kinds[i].orig == funcs) copy = &kinds[i].copy;
  }
  if (!copy && kind_count < MAX_SOURCE_KINDS) {
    kinds[kind_count].orig = funcs;
    kinds[kind_count].copy = *funcs;
    kinds[kind_count].copy.dispatch = source_dispatch;
    copy = &kinds[kind_count].copy;
    g_atomic_int_inc(&kind_count);
  }
  pthread_mutex_unlock(&kinds_lock);
  return copy;
}

GSource* g_source_new(GSourceFuncs* source_funcs, guint struct_size) {
  GSourceFuncs* copy = NULL;
  REAL(g_source_new);
  if (source_funcs && source_funcs->dispatch && source_funcs->dispatch != source_dispatch)
    copy = copy_of(source_funcs);
  return real_g_source_new(copy ? copy : source_funcs, struct_size);
}

guint g_source_attach(GSource* source, GMainContext* context) {
  REAL(g_source_attach);
  release(source);
  return real_g_source_attach(source, context);
}

void g_source_destroy(GSource* source) {
  REAL(g_source_destroy);
  /* Before: the source may be freed inside, and its ordering with it. */
  acquire(source);
  real_g_source_destroy(source);
}

gboolean g_source_remove(guint tag) {
  GSource* source = g_main_context_find_source_by_id(NULL, tag);
  REAL(g_source_remove);
  if (source) acquire(source);
  return real_g_source_remove(tag);
}
