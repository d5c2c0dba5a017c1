// XML resource files: contact lists, dial plans and dial-now rules (line and memory keys in
// dsskeyParser.h). A cover installs a downloaded file only when it is well-formed XML whose root
// element is the one the phone reads for that file; a modify edits attributes of the installed file
// in place, one item per attribute.
//
// Element paths. An item's section names an element by names separated by "."; the item's key names
// the attribute, and a key "A::B" moves "A" into the path and leaves "B" as the attribute. A number
// after a name selects among elements of that name under the same parent, COUNTING FROM 1
// ("DialRule.Data.2" is the second "Data" of "DialRule"; a name without a number is its first
// element). MISSING ELEMENTS ARE CREATED, at every level: a name not there is appended, and a number
// beyond the elements there appends as many as it takes, so "DialRule.Data.3" on a plan of one rule
// adds rules 2 and 3. Indexes of 0 or above 1000 are refused ("Invalid Element Index !") and so is
// a name that is not an XML name, or a path of more than 64 elements; a refused path leaves its item
// unapplied.
//
// Expected roots: "DialRule" for dial plans, "DialNow" for dial-now rules, "ContactData" for contact
// lists; the generic XML parser accepts any root.
//
// Edits and record additions hold the "LOCKXML" mutex, which the phone's applications hold too when
// they write these files, and every write replaces the file atomically.
#pragma once

#include <string>

#include "binParser.h"

namespace tinyxml2 {
class XMLDocument;
class XMLElement;
}  // namespace tinyxml2

class autoXmlParser : public autoBinParser {
 public:
  int modifyFile(const std::string& destination, autopItemList& items) override;
  // Room on the partition, well-formed XML and the expected root.
  int checkFile() override;

 protected:
  // The root element a valid file must have; "" accepts any.
  virtual const char* expectedRoot() const { return ""; }
};

// Contact list: checked as XML with root "ContactData"; after an install the phone application is
// told to reload through the item's action.
class autoContactParser : public autoXmlParser {
 public:
  int upgradePost() override;

 protected:
  const char* expectedRoot() const override { return "ContactData"; }
};

class autoDialPlan : public autoXmlParser {
 public:
  int modifyFile(const std::string& destination, autopItemList& items) override;

 protected:
  const char* expectedRoot() const override { return "DialRule"; }
};

class autoDialNow : public autoXmlParser {
 public:
  int modifyFile(const std::string& destination, autopItemList& items) override;

 protected:
  const char* expectedRoot() const override { return "DialNow"; }
};

// Parses a resource document; false for what the parser refuses, for a document without an element and
// for text beside the root element.
bool xmlParseDocument(tinyxml2::XMLDocument& document, const std::string& text);
// The element an item's path names, created as the header comment says; nullptr for a refused path.
tinyxml2::XMLElement* xmlElementByPath(tinyxml2::XMLDocument& document, const std::string& path);
// Sets the attribute each item names in the document; marks the items it applied. The number
// applied.
int xmlApplyItems(tinyxml2::XMLDocument& document, autopItemList& items);

// Appends the dial-plan rule "index,prefix,replace,lineId" to the file: 0 when added, -1 when a
// rule with that prefix (case-sensitive) exists or the record or file is unusable. A file that does
// not load, or has no "DialRule", is replaced by a new one.
int addDialRule(const std::string& destination, const std::string& record);
// Appends the dial-now rule "rule[,lineId]": 0 when added, -1 when the same rule (ignoring case)
// exists. A file that does not load, or has no "DialNow", is replaced by a new one.
int addDialNowRule(const std::string& destination, const std::string& record);
