#pragma once

#include "client/JsonText.h"
#include "host/AttributeDefinitionRecords.h"
#include "host/Framework.h"

#include <cpprest/json.h>

// The attribute definition document: a flat translation of the host's records into JSON, one
// object per attribute in list order. Nothing is computed, validated or left out, and nothing is
// guarded: a null list or a null element is the host's fault.

/// The document for all attributes: an array of one definition object per attribute.
web::json::value BuildAttributeDefinitionsJson(const CList<DesktopAttributeDTO*>* attributes);
/// The "ValueRanges" array of one attribute.
web::json::value BuildValueRangesJson(const CList<DesktopValueRangeDTO*>& ranges);
/// The "Cases" array of one attribute.
web::json::value BuildCasesJson(const CList<DesktopCaseDTO*>& cases);

/// The same document written directly as the JSON text that serialising
/// BuildAttributeDefinitionsJson's value gives, without building the value first: a document of
/// thousands of attributes would otherwise cost hundreds of thousands of small allocations.
JsonText WriteAttributeDefinitionsJson(const CList<DesktopAttributeDTO*>* attributes);
