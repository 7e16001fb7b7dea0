// The error object of each thread.
//
// What has no length (code, set, number) lives in the thread itself and is always kept. Texts and inserts stand in an
// object of one allocation (the object, the inserts, the texts), which is there only while the thread has an error and
// memory sufficed for it; a thread-specific key releases it when the thread ends. Nothing here is a cancellation point.
#include "cu/kz_cu.h"

#include <errno.h>
#include <limits.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdlib.h>
#include <string.h>

// The calling thread's current error.
struct thread_error_t {
    cu_error_t bare;    // without texts and inserts
    cu_error_t *pWhole; // the same with them, one allocation of wholeSize bytes; null: none are kept
    size_t wholeSize;
    bool isKeySet; // the end of the thread releases pWhole
};

[[gnu::tls_model("initial-exec")]] static constinit thread_local thread_error_t threadError = {};

static constinit pthread_once_t keyOnce = PTHREAD_ONCE_INIT;
static constinit pthread_key_t key = 0;
static constinit bool isKeyThere = false; // constant after keyOnce

static void release_whole() {
    free(threadError.pWhole);
    threadError.pWhole = nullptr;
}

// Runs as the thread ends. The destructor of another key may set an error after this one: that sets the key anew, and
// this runs once more.
static void release_at_thread_end(void *) {
    threadError.isKeySet = false;
    release_whole();
}

static void create_key() {
    isKeyThere = pthread_key_create(&key, release_at_thread_end) == 0;
}

// Sees to it that the end of the thread releases its object. Returns false when that could not be arranged.
static bool arrange_release() {
    if (!threadError.isKeySet) {
        (void)pthread_once(&keyOnce, create_key);
        threadError.isKeySet = isKeyThere && pthread_setspecific(key, &threadError) == 0;
    }
    return threadError.isKeySet;
}

// Walks a default text and, in step, the values given for its conversions.
struct insert_cursor_t {
    const char *pText; // behind the conversion read last
    va_list values;
};

struct insert_t {
    cu_error_arg_t arg;
    size_t textSize; // bytes of a text with its zero byte; 0 for a null text and for other kinds
};

// NOLINTBEGIN(clang-analyzer-valist.Uninitialized): it loses sight of a va_list inside a structure

// number := digits | "*"    A "*" takes an int of the values.
static int read_number(insert_cursor_t *pCur) {
    if (*pCur->pText == '*') {
        pCur->pText++;
        return va_arg(pCur->values, int);
    }
    int number = 0;
    for (; *pCur->pText >= '0' && *pCur->pText <= '9'; pCur->pText++)
        number = number > INT_MAX / 10 - 1 ? number : number * 10 + (*pCur->pText - '0');
    return number;
}

// modifier := "" | "h" | "hh" | "l" | "ll" | "j" | "z" | "t" | "L"    Returns its letter, 'q' for "ll", 0 for none.
static char read_modifier(insert_cursor_t *pCur) {
    const char modifier = *pCur->pText;
    if (modifier == '\0' || strchr("hljztL", modifier) == nullptr)
        return 0;
    pCur->pText++;
    if ((modifier != 'h' && modifier != 'l') || *pCur->pText != modifier)
        return modifier;
    pCur->pText++;
    return modifier == 'l' ? 'q' : 'h';
}

// Takes the value of an integer conversion. What is shorter than an int arrives as one.
static void take_integer(insert_cursor_t *pCur, char modifier, cu_error_arg_t *pArg) {
    pArg->cu_arg_type = CU_ERROR_ARG_LONG;
    switch (modifier) {
    case 'l':
        pArg->cu_arg_value.cu_arg_long = va_arg(pCur->values, long);
        break;
    case 'z':
        pArg->cu_arg_value.cu_arg_long = static_cast<long>(va_arg(pCur->values, size_t));
        break;
    case 't':
        pArg->cu_arg_value.cu_arg_long = static_cast<long>(va_arg(pCur->values, ptrdiff_t));
        break;
    case 'j':
        pArg->cu_arg_type = CU_ERROR_ARG_LONG_LONG;
        pArg->cu_arg_value.cu_arg_long_long = va_arg(pCur->values, intmax_t);
        break;
    case 'q':
    case 'L':
        pArg->cu_arg_type = CU_ERROR_ARG_LONG_LONG;
        pArg->cu_arg_value.cu_arg_long_long = va_arg(pCur->values, long long);
        break;
    default:
        pArg->cu_arg_type = CU_ERROR_ARG_INT;
        pArg->cu_arg_value.cu_arg_int = va_arg(pCur->values, int);
    }
}

// Takes the value of a text conversion. With a precision the text need not end with a zero byte.
static void take_text(insert_cursor_t *pCur, int precision, insert_t *pInsert) {
    char *pText = va_arg(pCur->values, char *);
    pInsert->arg.cu_arg_type = CU_ERROR_ARG_CHAR_STR;
    pInsert->arg.cu_arg_value.cu_arg_char_str = pText;
    if (pText != nullptr)
        pInsert->textSize = 1 + (precision < 0 ? strlen(pText) : strnlen(pText, static_cast<size_t>(precision)));
}

// Takes the value of a floating-point conversion. A long double loses what a double can't hold.
static void take_double(insert_cursor_t *pCur, char modifier, cu_error_arg_t *pArg) {
    pArg->cu_arg_type = CU_ERROR_ARG_DOUBLE;
    pArg->cu_arg_value.cu_arg_double =
        modifier == 'L' ? static_cast<double>(va_arg(pCur->values, long double)) : va_arg(pCur->values, double);
}

static void take_pointer(insert_cursor_t *pCur, cu_error_arg_t *pArg) {
    pArg->cu_arg_type = CU_ERROR_ARG_VOID_PTR;
    pArg->cu_arg_value.cu_arg_void_ptr = va_arg(pCur->values, void *);
}

// NOLINTEND(clang-analyzer-valist.Uninitialized)

// conversion := "%" flags [number] ["." number] modifier letter
// Reads on to the next conversion that has an insert and takes that from the values. Returns false at the end of the
// text, or at a conversion that isn't known: how its value was passed, and where the next ones are, can't be told then.
static bool next_insert(insert_cursor_t *pCur, insert_t *pInsert) {
    *pInsert = {};
    while ((pCur->pText = strchr(pCur->pText, '%')) != nullptr) {
        pCur->pText++;
        pCur->pText += strspn(pCur->pText, "-+ #0'");
        (void)read_number(pCur); // the width
        int precision = -1;
        if (*pCur->pText == '.') {
            pCur->pText++;
            precision = read_number(pCur);
        }
        const char modifier = read_modifier(pCur);
        const char letter = *pCur->pText;
        if (letter == '\0')
            return false;
        pCur->pText++;
        if (letter == '%')
            continue;
        if (strchr("diuxXo", letter) != nullptr)
            take_integer(pCur, modifier, &pInsert->arg);
        else if (letter == 'c')
            take_integer(pCur, 0, &pInsert->arg); // a wide character is an int as well
        else if (strchr("fFgGeEaA", letter) != nullptr)
            take_double(pCur, modifier, &pInsert->arg);
        else if (letter == 's' && modifier == 0)
            take_text(pCur, precision, pInsert);
        else if (letter == 'p' || letter == 's')
            take_pointer(pCur, &pInsert->arg); // a text of wide characters is not copied
        else
            return false;
        return true;
    }
    return false;
}

static size_t text_size(const char *pText) {
    return pText == nullptr ? 0 : strlen(pText) + 1;
}

// Copies a text of size - 1 characters to *ppFree, which steps behind it, and returns the copy; null for a size of 0.
static char *store_text(char **ppFree, const char *pText, size_t size) {
    if (size == 0)
        return nullptr;
    char *pStored = *ppFree;
    memcpy(pStored, pText, size - 1);
    pStored[size - 1] = '\0';
    *ppFree += size;
    return pStored;
}

// Tells the size of an error's object, and how many inserts it has.
static size_t whole_size(const cu_error_t *pError, insert_cursor_t *pCur, uint32_t *pNumInserts) {
    size_t size = sizeof(cu_error_t) + text_size(pError->cu_ffdc_id) + text_size(pError->cu_msg_cat) +
                  text_size(pError->cu_msg_default);
    uint32_t numInserts = 0;
    for (insert_t insert; next_insert(pCur, &insert); numInserts++)
        size += sizeof(cu_error_arg_t) + insert.textSize;
    *pNumInserts = numInserts;
    return size;
}

// Fills an object: what *pError says, with its texts copied, and the inserts.
static void fill_whole(cu_error_t *pWhole, const cu_error_t *pError, insert_cursor_t *pCur, uint32_t numInserts) {
    static_assert(sizeof(cu_error_t) % alignof(cu_error_arg_t) == 0); // the inserts stand right behind the object
    auto *pArgs = reinterpret_cast<cu_error_arg_t *>(pWhole + 1);
    char *pFree = reinterpret_cast<char *>(pArgs + numInserts);
    *pWhole = *pError;
    pWhole->cu_ffdc_id = store_text(&pFree, pError->cu_ffdc_id, text_size(pError->cu_ffdc_id));
    pWhole->cu_msg_cat = store_text(&pFree, pError->cu_msg_cat, text_size(pError->cu_msg_cat));
    pWhole->cu_msg_default = store_text(&pFree, pError->cu_msg_default, text_size(pError->cu_msg_default));
    pWhole->cu_arg_cnt = numInserts;
    pWhole->cu_args = numInserts == 0 ? nullptr : pArgs;
    insert_t insert;
    for (uint32_t i = 0; i < numInserts && next_insert(pCur, &insert); i++) {
        pArgs[i] = insert.arg;
        if (insert.arg.cu_arg_type == CU_ERROR_ARG_CHAR_STR)
            pArgs[i].cu_arg_value.cu_arg_char_str =
                store_text(&pFree, insert.arg.cu_arg_value.cu_arg_char_str, insert.textSize);
    }
}

int32_t cu_set_error_1(int32_t error_id, const char *ffdc_id, const char *msg_cat, int32_t msg_set, int32_t msg_num,
                       const char *msg_default, ...) {
    release_whole();
    threadError.bare = {};
    threadError.bare.cu_error_id = error_id;
    threadError.bare.cu_msg_set = msg_set;
    threadError.bare.cu_msg_num = msg_num;
    if (!arrange_release())
        return error_id;

    cu_error_t given = threadError.bare;
    given.cu_ffdc_id = const_cast<char *>(ffdc_id); // these three are only read
    given.cu_msg_cat = const_cast<char *>(msg_cat);
    given.cu_msg_default = const_cast<char *>(msg_default);
    const char *pFormat = msg_default == nullptr ? "" : msg_default;
    uint32_t numInserts = 0;
    insert_cursor_t cur;
    cur.pText = pFormat; // the inserts are walked twice: what size, then which
    va_start(cur.values, msg_default);
    threadError.wholeSize = whole_size(&given, &cur, &numInserts);
    va_end(cur.values);
    threadError.pWhole = static_cast<cu_error_t *>(malloc(threadError.wholeSize));
    if (threadError.pWhole != nullptr) {
        cur.pText = pFormat;
        va_start(cur.values, msg_default);
        fill_whole(threadError.pWhole, &given, &cur, numInserts);
        va_end(cur.values);
    }
    return error_id;
}

int32_t cu_set_no_error_1(void) {
    release_whole();
    threadError.bare = {};
    return 0;
}

// Turns a pointer into one object into the pointer to the same place of its copy. Null stays null.
template <typename T> static T *move_pointer(T *pPlace, const cu_error_t *pFrom, cu_error_t *pTo) {
    if (pPlace == nullptr)
        return nullptr;
    const ptrdiff_t offset = reinterpret_cast<const char *>(pPlace) - reinterpret_cast<const char *>(pFrom);
    return reinterpret_cast<T *>(reinterpret_cast<char *>(pTo) + offset);
}

int32_t cu_get_error_1(cu_error_t **error_p) {
    if (error_p == nullptr)
        return EINVAL;
    const cu_error_t *pFrom = threadError.pWhole;
    const size_t size = pFrom == nullptr ? sizeof(cu_error_t) : threadError.wholeSize;
    if (pFrom == nullptr)
        pFrom = &threadError.bare;
    auto *pCopy = static_cast<cu_error_t *>(malloc(size));
    if (pCopy == nullptr)
        return ENOMEM;
    memcpy(pCopy, pFrom, size);
    pCopy->cu_ffdc_id = move_pointer(pCopy->cu_ffdc_id, pFrom, pCopy);
    pCopy->cu_msg_cat = move_pointer(pCopy->cu_msg_cat, pFrom, pCopy);
    pCopy->cu_msg_default = move_pointer(pCopy->cu_msg_default, pFrom, pCopy);
    pCopy->cu_args = move_pointer(pCopy->cu_args, pFrom, pCopy);
    for (uint32_t i = 0; i < pCopy->cu_arg_cnt; i++) {
        cu_error_arg_t *pArg = &pCopy->cu_args[i];
        if (pArg->cu_arg_type == CU_ERROR_ARG_CHAR_STR)
            pArg->cu_arg_value.cu_arg_char_str = move_pointer(pArg->cu_arg_value.cu_arg_char_str, pFrom, pCopy);
    }
    *error_p = pCopy;
    return 0;
}

void cu_rel_error_1(cu_error_t *error) {
    free(error);
}
