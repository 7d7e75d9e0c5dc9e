#include "kelquote/KelQuoteClient.h"

tavr::BaseQuoteClient* getKelClient() { return &tavr::KelQuoteClient::get(); }
