// The live metadata query that keeps the presenter's cache in step with the cloud.

#include "QNiCloud/QNiCloudDocumentsPresenter.h"

// Filled in when the cache query lands.
void QNiCloudDocumentsPresenter::startCacheQuery() {}

// Filled in when the cache query lands.
void QNiCloudDocumentsPresenter::stopCacheQuery() {}

// Filled in when the cache query lands.
void QNiCloudDocumentsPresenter::clearCache() {}
