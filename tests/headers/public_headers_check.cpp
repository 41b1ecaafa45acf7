// Compiled with the project's include directory only: the public headers
// need nothing else (no libxml2 headers, no private headers of the library).
#include "BinLogDictionary.h"
#include "BinLogRecordHeaders.h"
#include "BinaryLogDisplayFormatter.h"
#include "BinaryLogStatsCollector.h"
#include "BinaryLogXmlReader.h"
#include "WexOamBinLogXmlReader/ByteReader.h"
#include "WexOamBinLogXmlReader/CaptureStream.h"
#include "WexOamBinLogXmlReader/DatagramStream.h"
#include "WexOamBinLogXmlReader/Filter.h"
#include "WexOamBinLogXmlReader/Format.h"
#include "WexOamBinLogXmlReader/Record.h"

#ifdef LIBXML_VERSION
#error "a public header includes libxml2's headers"
#endif

// The members that take libxml2 nodes take them through the declaration the
// headers make themselves.
int (Tav::BinaryLogXmlReader::*const parseBinLogXmlMember)(
    xmlNode*, std::uint16_t&, Tav::ModuleDetails&,
    std::map<std::uint16_t, Tav::LogDetails>&) = &Tav::BinaryLogXmlReader::parseBinLogXml;
