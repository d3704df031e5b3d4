// Prints the sources of the named modules of an Android.bp file, or of all its modules, one a line.
// The file is read by the platform's own parser.
//
// usage: soong_sources FILE [MODULE...]
package main

import (
	"fmt"
	"log"
	"os"

	"github.com/google/blueprint/parser"
)

func stringOf(module *parser.Module, name string) string {
	if property, found := module.GetProperty(name); found {
		if text, isString := property.Value.Eval().(*parser.String); isString {
			return text.Value
		}
	}
	return ""
}

func stringsOf(module *parser.Module, name string) (texts []string) {
	property, found := module.GetProperty(name)
	if !found {
		return nil
	}
	list, isList := property.Value.Eval().(*parser.List)
	if !isList {
		log.Fatalf("%s: %s is no list", stringOf(module, "name"), name)
	}
	for _, value := range list.Values {
		texts = append(texts, value.Eval().(*parser.String).Value)
	}
	return texts
}

func main() {
	log.SetFlags(0)
	if len(os.Args) < 2 {
		log.Fatal("usage: soong_sources FILE [MODULE...]")
	}
	reader, err := os.Open(os.Args[1])
	if err != nil {
		log.Fatal(err)
	}
	file, errs := parser.ParseAndEval(os.Args[1], reader, parser.NewScope(nil))
	for _, err := range errs {
		log.Print(err)
	}
	if len(errs) > 0 {
		os.Exit(1)
	}

	wanted := map[string]bool{}
	for _, name := range os.Args[2:] {
		wanted[name] = true
	}
	for _, definition := range file.Defs {
		module, isModule := definition.(*parser.Module)
		if !isModule || (len(wanted) > 0 && !wanted[stringOf(module, "name")]) {
			continue
		}
		for _, source := range stringsOf(module, "srcs") {
			fmt.Println(source)
		}
	}
}
