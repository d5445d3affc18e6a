// Where attribute lists meet structured messages: the legality check of
// names that come in from outside, and the "_I18N" companion attributes.
#include <stdlib.h>
#include <string.h>

#include "liblocal/attrlist.h"
#include "liblocal/kv_msg.h"

// Names longer than this are refused when a resource comes in from outside;
// inside the library a name of any length is kept whole.
static const int kMaxLegalName = 63;

errinfo* attrlist_legal(attrlist* al) {
    for (; al != nullptr; al = al->next) {
        if ((int)strlen(al->name) > kMaxLegalName)
            return msg_create(84890, 35021,
                              "Attribute '%s' has a name that is longer than the maximum size "
                              "[%d characters] allowed",
                              ARG_ATTRNAME, al->name, ARG_INT, inttostr(kMaxLegalName));
    }
    return nullptr;
}

char* attrlist_add_I18Nattr(attrlist** alp, char* name, int delete_oldattr) {
    if (alp == nullptr || name == nullptr) return nullptr;
    attrlist* old = attrlist_find(*alp, name);
    if (old == nullptr || old->values == nullptr) return nullptr;
    // A bounded buffer of 64: a long name is cut, and "_I18N" with it.
    char newname[64];
    size_t n = strnlen(name, sizeof newname - 1);
    memcpy(newname, name, n);
    newname[n] = '\0';
    size_t room = sizeof newname - 1 - n;
    strncat(newname, "_I18N", room);
    vallist* vals = nullptr;
    vallist* tail = nullptr;
    for (vallist* v = old->values; v != nullptr; v = v->next) {
        char* st = msg_string_to_stbuf(v->value);
        vallist_append(&vals, &tail, st != nullptr ? st : const_cast<char*>(""));
        free(st);
    }
    attrlist* elem = attrlist_setlist(alp, newname, vals);
    vallist_free(vals);
    // Never delete the new attribute itself when the cut left the name unchanged.
    if (delete_oldattr && attr_namecmp(name, newname) != 0) attr_delete(alp, name);
    return elem->name;
}
